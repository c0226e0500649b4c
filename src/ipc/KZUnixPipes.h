#pragma once

#include "ipc/PipeClient.h"
#include "ipc/PipeDirectory.h"
#include "ipc/PipeServer.h"

namespace guardian {

// Named pipes between two processes of one machine, over Unix-domain stream sockets. What travels
// is a sequence of framed messages. The two ends are TPipeClient and TPipeServer.

// Starts the unit. Main thread.
void StartPipes();

// Writes to the error log what is still alive, and forgets the pipe directory. Main thread, after
// all clients and servers are gone.
void StopPipes();

}  // namespace guardian
