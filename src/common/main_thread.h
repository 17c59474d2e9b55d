#pragma once

#include <functional>

namespace velocast {

// The main thread is the one that runs the Qt event loop (the QCoreApplication's thread).
bool isMainThread();
// Queues a task on the main thread's event loop; it runs later even when called there.
// Does nothing when there is no QCoreApplication.
void runOnMainThread(std::function<void()> task);

} // namespace velocast
