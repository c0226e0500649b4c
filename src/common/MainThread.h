#pragma once

#include <chrono>
#include <functional>

namespace guardian {

// The queue of requests that other threads want run in the main thread ("synchronise").
// Start: BindMainThread makes the calling thread the main one and opens the queue.
// Stop: CloseMainThreadQueue, by the main thread at its end, refuses what waits and what comes
// later, so that no thread waits for a main thread that has gone. Both can be called again and
// again.

void BindMainThread();
void CloseMainThreadQueue();

// True in the thread that called BindMainThread last.
[[nodiscard]] bool IsMainThread() noexcept;

// Runs the function in the main thread and returns when it has run. Returns false, without having
// run it, when the queue is closed. What the function throws is thrown here. In the main thread
// it runs at once. Blocks for as long as the main thread does not reach CheckSynchronize.
bool Synchronize(const std::function<void()>& function);

// Main thread: runs all waiting requests; when there is none, first waits for one, for
// WakeMainThread or for the end of the timeout. Returns whether any request ran. In any other
// thread it only waits.
bool CheckSynchronize(std::chrono::milliseconds timeout);

// Waits for the whole time; in the main thread it runs the requests that come meanwhile.
void SleepSynchronizing(std::chrono::milliseconds duration);

// Ends the wait of CheckSynchronize early. Async-signal-safe.
void WakeMainThread() noexcept;

}  // namespace guardian
