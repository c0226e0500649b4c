#pragma once

#include <cstdint>
#include <memory>

#include "common/Clock.h"
#include "common/FileDescriptor.h"

namespace guardian {

// The file objects of the process: open files that are known by a number, so that a thread other
// than the one that opened a file can close it. A number is never given twice, so closing a file a
// second time is noticed and never hits another file. The Guardian itself only adds and closes
// files; BorrowFileObject, and the wait of CloseHandle for borrowers, serve other programs of the
// maker.
// Owner: process-wide. A file object lives from AddFileObject to CloseHandle; its file stays open
// until the last borrower has let go of it.
// Threads: any thread may call anything.

using TFileHandle = std::int64_t;  // Above 1 for a file object; 0 and 1 mean none.

// Takes the file over. Throws KZException when the descriptor is empty.
[[nodiscard]] TFileHandle AddFileObject(TFileDescriptor file);

// The file, which stays open for as long as the pointer is kept; null when there is no such file
// object.
[[nodiscard]] std::shared_ptr<const TFileDescriptor> BorrowFileObject(TFileHandle handle);

// Releases the flock that the file holds, and closes the file; 0 and 1 are ignored. Where the file
// is borrowed, waits up to a second for the last borrower, whose release closes it. Throws
// KZException "Invalid handle passed to CloseHandle" for a number that is not a file object's.
void CloseHandle(TFileHandle handle, TClock& clock = SystemClock());

}  // namespace guardian
