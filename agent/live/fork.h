// Runs a function in a copy of the process, so that it may change everything and leave no trace.
//
// The copy has the activity thread only: the function must not wait for another thread, nor touch
// what one of them may have locked. The process's memory is shared until either writes to it.
#pragma once

#include <functional>
#include <string>

namespace vnagent {

// Runs something later on the activity thread; callable on any thread.
using Post = std::function<void(std::function<void()>)>;

// Calls done(text) on the activity thread with what `run` returned in the copy; with the empty text
// where the copy failed. Without `post` the caller waits, and `done` is called from inside.
void runInCopy(const std::function<std::string()>& run, std::function<void(std::string)> done,
               const Post& post);

}  // namespace vnagent
