// Deferred checks and the task processor that runs them once per main-loop
// cycle, in order of addition, until each expires.
#pragma once

#include <cstdint>
#include <ctime>
#include <list>

#include <boost/shared_ptr.hpp>

#include "protocol/request.h"

/// A check that the task processor runs on every pass until it expires.
class qm_task {
 public:
  qm_task() = default;
  virtual ~qm_task();
  qm_task(const qm_task&) = delete;
  qm_task& operator=(const qm_task&) = delete;

  /// One pass of the check; does nothing here.
  virtual void execute();
  /// Marks the task done; the processor erases it on its next pass.
  void expire();
  bool expired() const;

 private:
  bool m_expired = false;
};

/// Waits for a job that is being deleted to leave the executing queues.
class WaitJobToTerminate : public qm_task {
 public:
  /// Copies the client's handle and notes the construction time.
  WaitJobToTerminate(int32_t pid, int32_t entry, const HPEER& peer, int32_t timeout);
  ~WaitJobToTerminate() override;

  /// Expires when the job is gone, answering nothing; answers Warning and
  /// expires when the wait has timed out.
  void execute() override;

  int32_t m_PID = 0;                  ///< process id of the job to wait for
  int32_t m_EntryNo = 0;              ///< its entry number
  boost::shared_ptr<HPEER> m_pHPEER;  ///< copy of the client's handle, the client to answer
  int32_t m_timeout = 0;              ///< seconds
  time_t m_start_time = 0;            ///< construction time
};

/// Adds a WaitJobToTerminate task for the job to the daemon-wide processor.
void add_WaitJobToTerminate_task(int32_t pid, int32_t entry, const HPEER* peer, int32_t timeout);

/// The list of pending tasks and its pass.
class qm_task_processor {
 public:
  /// Appends a task; it runs from the next pass on.
  void add(const boost::shared_ptr<qm_task>& task);
  /// Walks the tasks from the front: an expired task is erased, any other
  /// executed. A task that expires while it executes is erased next pass.
  void process();

  std::list<boost::shared_ptr<qm_task>> m_tasks;  ///< in order of addition
};

/// The daemon-wide processor (never destroyed: forked answer writers exit
/// without tearing it down).
qm_task_processor& QmTaskProcessor();

/// Runs the daemon-wide processor's pass (once per loop cycle).
void process_qm_tasks();
