// A file host for the benchmarks, in a process of its own so that neither its CPU nor its
// memory counts against the process being measured. It makes its bodies while sending them
// and never holds more than one buffer:
//   GET /bytes/<n>  n bytes, as fast as the connection takes them;
//   GET /paced/<n>  n bytes, 16 KiB every 20 ms (a download that stays under way).
// Every answer carries the same strong ETag, and /bytes/ answers "Range: bytes=<from>-" (with a
// matching If-Range) by a 206 with the rest, as a file server that supports ranges does.
// Each connection is served by a forked process; Stop() ends them all.
#ifndef BENCH_STREAM_SERVER_H_
#define BENCH_STREAM_SERVER_H_

#include <sys/types.h>

#include <string>

namespace vistrel_bench {

class StreamServer {
 public:
  StreamServer() = default;
  ~StreamServer() { Stop(); }
  StreamServer(const StreamServer&) = delete;
  StreamServer& operator=(const StreamServer&) = delete;

  // Forks the server; call it before the process starts any thread. False when it cannot
  // listen on loopback.
  bool Start();
  // Kills the server and every connection it serves (a running transfer breaks off).
  void Stop();

  // "http://127.0.0.1:<port>"
  std::string base_url() const;

 private:
  pid_t pid_ = -1;
  int port_ = 0;
};

}  // namespace vistrel_bench

#endif  // BENCH_STREAM_SERVER_H_
