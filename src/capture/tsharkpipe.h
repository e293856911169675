#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "capture/capturequery.h"
#include "host/childprocess.h"

namespace vistrel::capture {

// tshark as a display filter between two pipes: pcapng in on its standard input, the matching
// packets as pcapng out of its standard output. The server's input end never blocks, its
// output end is polled, so one thread can feed while another drains. Failures are printed to
// standard output, as the operator watching the console expects.
class TsharkPipe {
  public:
    static constexpr int kPipeSize = 524288;
    // How long one receive() waits for output before it reports that nothing arrived.
    static constexpr int kReceiveWaitMs = 5;

    TsharkPipe();
    // Another program in tshark's place; tests use it to see a failed start.
    explicit TsharkPipe(std::string program);
    ~TsharkPipe();
    TsharkPipe(const TsharkPipe&) = delete;
    TsharkPipe& operator=(const TsharkPipe&) = delete;

    // Creates the pipes and starts `<program> -r - -w - -Y <time filter of query>`: 0 or -1.
    int start(const CaptureQuery& query);
    // The bytes the input pipe took (0 when it is full), or -1 when tshark is gone or the
    // write failed.
    int64_t send(const uint8_t* bytes, size_t count);
    // The bytes read (0 when nothing arrived within a short wait), or -1 on a failure. Output
    // is read to its end, also after stop(): output_ended() tells when tshark closed it.
    int64_t receive(uint8_t* buffer, size_t capacity);
    bool output_ended() const { return output_ended_.load(); }
    // Closes tshark's input, waits for it to exit, keeps its exit status and marks the pipe
    // finished: 0.
    int stop();
    void close_handles();
    // Kills a tshark that is still running, for a download abandoned half-way: a blocked
    // stop() then returns.
    void abort();

    bool finished() const { return finished_.load() != 0; }
    // After finished(): 0 for a clean exit, the exit status, or 128 + the signal that ended it.
    int exit_status() const { return exit_status_.load(); }
    const std::string& program() const { return tshark_path_; }

  private:
    std::atomic<int32_t> finished_{0};
    std::atomic<bool> output_ended_{false};
    std::atomic<int> exit_status_{-1};
    std::string tshark_path_;
    host::ChildProcess child_;
};

}  // namespace vistrel::capture
