// The raw limit the daemon is measured against: a process that reads frames
// from one FIFO with plain read() calls and answers every 52-byte request
// with a 101-byte answer on another, built from a template (the daemon's
// answer to GetAnalyticsFilterDataRequest, byte for byte but for its id and
// time, addressed to the request's sender and id). Large frames are read
// and dropped, so the same process is the bulk sink of the calibration
// runs. With `log` set it writes one syslog() line per request, the
// daemon's, before answering: the limit for a server that must log every
// request.
#ifndef DRAVIK_BENCH_RAW_ECHO_H_
#define DRAVIK_BENCH_RAW_ECHO_H_

// Waits for a writer on `inPath`, serves until it sees end of file, and
// returns the process exit status.
int serveRawEcho(const char* inPath, const char* outPath, bool log);

#endif  // DRAVIK_BENCH_RAW_ECHO_H_
