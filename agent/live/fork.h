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

// Reads what `run` returned in the copy, the empty text where the copy failed, and returns what
// is to be done with that.
using ReadCopy = std::function<std::function<void()>(std::string text)>;

// Runs `run` in a copy of the process. `read` is called on a thread of its own, where it delays
// nobody, and what it returns on the activity thread. Without `post` the caller waits, and both are
// called from inside.
void runInCopy(const std::function<std::string()>& run, ReadCopy read, const Post& post);

}  // namespace vnagent
