/*
 * workers.cpp - the worker processes of `trnw batch`: forked children that
 * take task numbers from a counter in shared memory and send each result
 * back through one pipe.
 */
#include "workers.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#ifndef _WIN32
#include <limits.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

/* Runs every task in the calling process. */
void RunInProcess(size_t count, const std::function<TaskResult(size_t)> &task,
                  const std::function<void(size_t, const TaskResult &)> &done)
{
    for (size_t i = 0; i < count; i++)
        done(i, task(i));
}

} // namespace

#ifdef _WIN32

void RunTasks(size_t count, int, const std::function<TaskResult(size_t)> &task,
              const std::function<void(size_t, const TaskResult &)> &done)
{
    RunInProcess(count, task, done);
}

#else

namespace {

/* A result on the pipe: this record, then `length` bytes of messages.  A
 * worker writes both in one write() of at most PIPE_BUF bytes, which POSIX
 * keeps whole: records of different workers never interleave. */
struct Record {
    uint32_t index;
    int32_t status;
    uint32_t length;
};
constexpr size_t kMaxMessages = PIPE_BUF - sizeof(Record);

bool WriteRecord(int fd, size_t index, const TaskResult &result)
{
    Record record = {(uint32_t)index, result.status,
                     (uint32_t)std::min(result.messages.size(), kMaxMessages)};
    char buffer[PIPE_BUF];
    memcpy(buffer, &record, sizeof record);
    memcpy(buffer + sizeof record, result.messages.data(), record.length);
    size_t size = sizeof record + record.length;
    ssize_t written;
    do
        written = write(fd, buffer, size);
    while (written < 0 && errno == EINTR);
    return written == (ssize_t)size;
}

/* Exactly `size` bytes, or false at the end of the pipe. */
bool ReadFully(int fd, void *into, size_t size)
{
    auto *bytes = static_cast<char *>(into);
    while (size > 0) {
        ssize_t got = read(fd, bytes, size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        bytes += got;
        size -= (size_t)got;
    }
    return true;
}

/* Keeps the page buffers that one file frees for the next: without this,
 * glibc hands every buffer of a megabyte or more back to the system and
 * each page pays again for faulting in fresh, zeroed memory (on a fax
 * page that is a third of the conversion's time). */
void KeepFreedMemory()
{
#ifdef __GLIBC__
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
#endif
}

/* A worker: takes the next task number until none is left. */
[[noreturn]] void Work(size_t count, std::atomic<uint32_t> &next, int fd,
                       const std::function<TaskResult(size_t)> &task)
{
    KeepFreedMemory();
    for (uint32_t i; (i = next.fetch_add(1)) < count;)
        if (!WriteRecord(fd, i, task(i)))
            break;
    _exit(0);
}

} // namespace

void RunTasks(size_t count, int workers, const std::function<TaskResult(size_t)> &task,
              const std::function<void(size_t, const TaskResult &)> &done)
{
    if (count == 0)
        return;
    workers = (int)std::min<size_t>((size_t)std::max(workers, 1), count);
    void *shared = mmap(nullptr, sizeof(std::atomic<uint32_t>), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int fds[2];
    if (shared == MAP_FAILED || pipe(fds) != 0) {
        if (shared != MAP_FAILED)
            munmap(shared, sizeof(std::atomic<uint32_t>));
        RunInProcess(count, task, done);
        return;
    }
    auto *next = new (shared) std::atomic<uint32_t>(0);
    fflush(nullptr); /* the children must not write the parent's buffered output again */
    std::vector<pid_t> children;
    for (int k = 0; k < workers; k++) {
        pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            Work(count, *next, fds[1], task);
        }
        if (pid > 0)
            children.push_back(pid);
    }
    close(fds[1]);

    std::vector<bool> reported(count, false);
    Record record;
    std::string messages;
    while (ReadFully(fds[0], &record, sizeof record)) {
        messages.resize(record.length);
        if (record.index >= count || !ReadFully(fds[0], messages.data(), record.length))
            break;
        reported[record.index] = true;
        done(record.index, {record.status, messages});
    }
    close(fds[0]);
    for (pid_t child : children)
        waitpid(child, nullptr, 0);
    munmap(shared, sizeof(std::atomic<uint32_t>));

    if (children.empty()) { /* no process could be started */
        RunInProcess(count, task, done);
        return;
    }
    for (size_t i = 0; i < count; i++)
        if (!reported[i])
            done(i, {1, ""});
}

#endif
