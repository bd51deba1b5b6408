// The task processor: deferred checks, run in order of addition.
#pragma once

#include <list>

#include <boost/shared_ptr.hpp>

#include "qm_task.h"

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
