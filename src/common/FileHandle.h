#pragma once

#include <cstdint>
#include <memory>

#include "common/Clock.h"
#include "common/FileDescriptor.h"

namespace guardian {

// The file objects of the process: open files that are known by a number, so that a thread other
// than the one that opened a file can close it. A number is never given twice: closing one that has
// been closed already is noticed and never hits another file.
// Owner: process-wide; a file object lives from AddFileObject to CloseHandle, its file until the
// last borrower has let go of it, too.
// Threads: any thread may call anything.

using TFileHandle = std::int64_t;  // Above 1 for a file object; 0 and 1 mean none.

// Takes the file over. Throws KZException when the descriptor is empty.
[[nodiscard]] TFileHandle AddFileObject(TFileDescriptor file);

// The file, which stays open for as long as the pointer is kept; null when there is no such file
// object.
[[nodiscard]] std::shared_ptr<const TFileDescriptor> BorrowFileObject(TFileHandle handle);

// Gives free the flock that the file holds, and closes the file; 0 and 1 are ignored. Where
// somebody has borrowed the file, waits up to a second for the last borrower, who closes it. Throws
// KZException "Invalid handle passed to CloseHandle" for a number that is not a file object's.
void CloseHandle(TFileHandle handle, TClock& clock = SystemClock());

}  // namespace guardian
