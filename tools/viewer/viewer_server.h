// The viewer's HTTP server: the page, MJPEG image streams, server-sent telemetry, the cloud,
// snapshots and controls; GET only, fixed routes, bounded clients.
#pragma once

#include <memory>
#include <string>

namespace orvo_viewer {

class LivePipeline;

struct ServerOptions {
    std::string bind = "127.0.0.1";
    int port = 8080;  // 0: any free port (see ViewerServer::port)
};

// Limits that keep a misbehaving client from starving the others.
constexpr int kWorkerThreads = 24;       // connections handled at once
constexpr int kQueuedConnections = 64;   // accepted and waiting for a worker; beyond, accept waits
constexpr int kMaxStreams = 16;          // long-lived responses (image streams, events) at once
constexpr int kReadTimeoutSeconds = 3;   // a request's head must arrive within this
constexpr int kWriteTimeoutSeconds = 5;  // a client that stops reading is dropped

class ViewerServer {
public:
    // Binds (throws std::runtime_error when the address or port cannot be had).
    ViewerServer(LivePipeline& pipeline, const ServerOptions& options);
    ~ViewerServer();
    ViewerServer(const ViewerServer&) = delete;
    ViewerServer& operator=(const ViewerServer&) = delete;

    int port() const;
    // Serves on its own thread until stop().
    void start();
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace orvo_viewer
