/*
 * workers.h - the trnw tool's pool of worker processes for `trnw batch`.
 * The library keeps its state per process (image table, decode settings),
 * so parallel work runs in processes, not threads.
 */
#ifndef TRNW_TOOL_WORKERS_H
#define TRNW_TOOL_WORKERS_H

#include <cstddef>
#include <functional>
#include <string>

/* What one task ended with: the tool's exit status for it (0 done) and the
 * error messages it wrote. */
struct TaskResult {
    int status = 0;
    std::string messages;
};

/* Runs task(i) for every i below `count` on `workers` processes, each taking
 * the next task as it becomes free, and calls done(i, result) in the calling
 * process as each task ends.  A task whose worker ended without reporting it
 * (a crash) is reported with status 1 and no messages.  On Windows the tasks run one after
 * the other in the calling process. */
void RunTasks(size_t count, int workers, const std::function<TaskResult(size_t)> &task,
              const std::function<void(size_t, const TaskResult &)> &done);

#endif /* TRNW_TOOL_WORKERS_H */
