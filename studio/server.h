// The studio's HTTP server: the page, and the JSON endpoints that the page calls.
//
// It listens on 127.0.0.1 only and answers only requests whose Host is the address it printed
// (a page elsewhere that points a name at 127.0.0.1 gets nothing). It reads and writes chain
// files only in the folder of the chain it was started with, and bounds every request.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "studio/chain_model.h"
#include "studio/processor.h"
#include "studio/studio.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace studio {

// The largest request body the server reads; larger ones get 413.
constexpr size_t kMaxRequestBytes = 64 * 1024;
// The largest chain file the page may load.
constexpr size_t kMaxChainBytes = 256 * 1024;
// The port tried first when none is given; a busy one gives way to any free port.
constexpr int kDefaultPort = 8765;

class StudioServer {
public:
    explicit StudioServer(StudioOptions options);
    ~StudioServer();
    StudioServer(const StudioServer&) = delete;
    StudioServer& operator=(const StudioServer&) = delete;

    // Binds 127.0.0.1: the given port, or with port 0 kDefaultPort or else any free one.
    // False with a one-line reason.
    bool Bind(int port, std::string& error);
    int Port() const { return port_; }
    std::string Address() const;

    // Serves until Stop. Starts the first exposure when the studio has a sensor and no picture.
    void Serve();
    void Stop();

private:
    void Route();
    bool HostAllowed(const httplib::Request& request) const;
    void State(httplib::Response& response);
    void Image(const httplib::Request& request, httplib::Response& response);
    void Process(const httplib::Request& request, httplib::Response& response);
    void LoadChain(const httplib::Request& request, httplib::Response& response);
    void SaveChain(const httplib::Request& request, httplib::Response& response);
    void Acquire(httplib::Response& response);
    bool StartAcquisition();
    bool ChainNameAllowed(const std::string& name) const;
    std::vector<std::string> ChainFiles() const;

    StudioOptions options_;
    std::unique_ptr<httplib::Server> server_;
    int port_ = 0;
    std::string host_;  // "127.0.0.1:PORT"
    std::string chainDir_;
    std::string chainName_;
    std::string scratchDir_;

    // The picture and what the page last saw; guarded by mutex_.
    mutable std::mutex mutex_;
    std::shared_ptr<const StudioImage> image_;
    uint64_t imageVersion_ = 0;
    bool acquiring_ = false;
    std::string acquireError_;
    std::atomic<int> progress_{0};
    std::thread acquisition_;

    // Processing: one run at a time; a newer request makes a running one stop between steps.
    std::mutex processMutex_;
    std::atomic<uint64_t> latestRequest_{0};
    uint64_t lastRun_ = 0;  // the request whose outputs the processor holds in full
    Processor processor_;
};

}  // namespace studio
