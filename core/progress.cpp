/*
 * progress.cpp - the status callback and its switch: process-wide, set by
 * IMG_set_statusbar, off at start; and the row watcher.
 */
#include "core/guard.h"
#include "core/progress.h"

#include "core/imgapi.h"

namespace {
IMG_STATUS_FUNC statusCallback;
int32_t statusValue;
int statusEnabled;
ImgRowWatcher rowWatcher;
void *rowWatcherContext;
} // namespace

void ImgSetRowWatcher(ImgRowWatcher watcher, void *context)
{
    rowWatcher = watcher;
    rowWatcherContext = context;
}

bool ImgRowWatched(void)
{
    return rowWatcher != nullptr;
}

int ImgRowStored(int32_t handle, int32_t row)
{
    if (!rowWatcher)
        return 0;
    int result = rowWatcher(rowWatcherContext, handle, row);
    return result < 0 ? result : 0;
}

int ImgReportProgress(int32_t total)
{
    if (!statusEnabled || !statusCallback)
        return 0;
    int32_t result = statusCallback(statusValue, total);
    return result < 0 ? result : 0;
}

int ImgStatusEnabled(void)
{
    return statusEnabled;
}

void ImgSetStatusEnabled(int enabled)
{
    statusEnabled = enabled;
}

int32_t IMGAPI IMG_set_statusbar(int32_t value, IMG_STATUS_FUNC callback, int32_t enable)
{
    return Guarded([&]() -> int32_t {
        if (enable) {
            statusCallback = callback;
            statusValue = value;
            statusEnabled = 1;
        } else {
            statusEnabled = 0;
        }
        return 0;
    });
}
