#include "jobs/tasks.h"

#include <cstring>

#include "cm_common.h"
#include "cm_trace.h"
#include "model/list.h"
#include "model/records.h"
#include "model/triple.h"
#include "protocol/answer.h"

qm_task::~qm_task() = default;
void qm_task::execute() {}
void qm_task::expire() { m_expired = true; }
bool qm_task::expired() const { return m_expired; }

WaitJobToTerminate::WaitJobToTerminate(int32_t pid, int32_t entry, const HPEER& peer, int32_t timeout)
    : m_PID(pid), m_EntryNo(entry), m_pHPEER(new HPEER(peer)), m_timeout(timeout), m_start_time(time(nullptr)) {
  trace("%l2 WaitJobToTerminate::WaitJobToTerminate PID: %d entryNo: %d timeout: %d", m_PID, m_EntryNo, m_timeout);
}

WaitJobToTerminate::~WaitJobToTerminate() = default;

void WaitJobToTerminate::execute() {
  // The elapsed time counts as 0: the wait never expires by time, and only a
  // negative timeout ends it here.
  const long elapsed = 0;
  if (elapsed > m_timeout) {
    answer(m_pHPEER.get(), KD_WARNING, "STATUS=WARNING MSG=Job %d did not terminate in specified time\n", m_EntryNo);
    trace(
        "%l1 WaitJobToTerminate::execute - expired - did not terminate in specified time PID: %d entryNo: %d "
        "timeout: %d",
        m_PID, m_EntryNo, m_timeout);
    expire();
    return;
  }
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) {
    // Only a triple named "qm_admin" is searched in its terminating queue;
    // the admin triple is "qu_admin", so a job handed over there counts as gone.
    if (triple->name.view() != "qm_admin") {
      for (Queue* queue : Elements<Queue>(triple->ExecQueues))
        for (Job* job : Elements<Job>(queue->ListOfJobs))
          if (job->PID == m_PID && job->EntryNumb == m_EntryNo) return;
    } else if (triple->TerminatingQueue != nullptr) {
      for (Job* job : Elements<Job>(triple->TerminatingQueue->ListOfJobs))
        if (job->PID == m_PID && job->EntryNumb == m_EntryNo) return;
    }
  }
  trace("%l2 WaitJobToTerminate::execute - job terminated PID: %d entryNo: %d timeout: %d", m_PID, m_EntryNo,
        m_timeout);
  expire();
}

void add_WaitJobToTerminate_task(int32_t pid, int32_t entry, const HPEER* peer, int32_t timeout) {
  trace("%l2 add_WaitJobToTerminate_task PID: %d entryNo: %d timeout: %d", pid, entry, timeout);
  QmTaskProcessor().add(boost::shared_ptr<qm_task>(new WaitJobToTerminate(pid, entry, *peer, timeout)));
}

void qm_task_processor::add(const boost::shared_ptr<qm_task>& task) { m_tasks.push_back(task); }

void qm_task_processor::process() {
  for (auto it = m_tasks.begin(); it != m_tasks.end();) {
    if ((*it)->expired()) {
      it = m_tasks.erase(it);  // the last shared pointer frees the task
      continue;
    }
    (*it)->execute();
    ++it;
  }
}

qm_task_processor& QmTaskProcessor() {
  // Allocated once and kept: a global with a destructor would run in every
  // process that calls exit, answer writers included.
  static qm_task_processor* const processor = new qm_task_processor;
  return *processor;
}

void process_qm_tasks() {
  trace("%l2 +++ process_qm_tasks");
  QmTaskProcessor().process();
  trace("%l2 --- process_qm_tasks");
}
