// Where the service's two named pipes are, for every process that talks to
// it: the daemon makes and reads the first and writes the second; its peers
// write commands into the first and read notifications from the second.
// Self-contained, so that the camera's other processes can include it alone.
#ifndef DRAVIK_STORE_SERVICE_PATHS_H_
#define DRAVIK_STORE_SERVICE_PATHS_H_

// Frames into the service: its mailbox.
constexpr const char* kCommandFifoPath = "/tmp/dravik.mailbox";
// Frames out of the service: notifications and answers.
constexpr const char* kNotificationFifoPath = "/tmp/comm.mailbox";

#endif  // DRAVIK_STORE_SERVICE_PATHS_H_
