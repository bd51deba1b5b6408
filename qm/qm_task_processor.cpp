// The task processor: one daemon-wide list of deferred checks.
#include "qm_task_processor.h"

#include "cm_trace.h"

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
