// The viewer's HTTP server on Debian's cpp-httplib: fixed routes over the pipeline's publications.
#include "viewer_server.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <httplib.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <orvo/point_cloud.hpp>

#include "assets.h"
#include "live_pipeline.h"

namespace orvo_viewer {

namespace {

// httplib's own pool queues without limit; this one makes the accepting thread wait when the
// queue is full, so a flood of connections waits in the kernel's backlog instead of in memory.
class BoundedPool : public httplib::TaskQueue {
public:
    BoundedPool(size_t threads, size_t queue_limit) : limit_(queue_limit) {
        for (size_t i = 0; i < threads; ++i) workers_.emplace_back([this] { work(); });
    }
    void enqueue(std::function<void()> fn) override {
        std::unique_lock<std::mutex> lock(mutex_);
        room_.wait(lock, [&] { return shutdown_ || queue_.size() < limit_; });
        queue_.push_back(std::move(fn));  // after shutdown too: the task closes its socket
        ready_.notify_one();
    }
    void shutdown() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            shutdown_ = true;
        }
        ready_.notify_all();
        room_.notify_all();
        for (std::thread& t : workers_) t.join();
    }

private:
    void work() {
        for (;;) {
            std::function<void()> fn;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                ready_.wait(lock, [&] { return shutdown_ || !queue_.empty(); });
                if (queue_.empty()) return;  // shut down and drained
                fn = std::move(queue_.front());
                queue_.pop_front();
                room_.notify_one();
            }
            fn();
        }
    }
    size_t limit_;
    std::mutex mutex_;
    std::condition_variable ready_, room_;
    std::deque<std::function<void()>> queue_;
    std::vector<std::thread> workers_;
    bool shutdown_ = false;
};

std::string png(const cv::Mat& image) {
    std::vector<uchar> bytes;
    cv::imencode(".png", image, bytes);
    return std::string(bytes.begin(), bytes.end());
}

// The disparity colour scale as a 256 x 1 image, near (red) on the right.
std::string scalePng() {
    cv::Mat ramp(1, 256, CV_8U);
    for (int i = 0; i < 256; ++i) ramp.at<uchar>(0, i) = uchar(i);
    cv::Mat colour;
    cv::applyColorMap(ramp, colour, cv::COLORMAP_TURBO);
    return png(colour);
}

bool flag(const httplib::Request& req, const char* name, bool fallback) {
    if (!req.has_param(name)) return fallback;
    const std::string v = req.get_param_value(name);
    return v == "1" || v == "true" || v == "on";
}

void attachment(httplib::Response& res, const std::string& body, const char* type, const std::string& name) {
    res.set_header("Content-Disposition", "attachment; filename=\"" + name + "\"");
    res.set_content(body, type);
}

}  // namespace

struct ViewerServer::Impl {
    LivePipeline& pipeline;
    httplib::Server http;
    std::thread thread;
    std::atomic<bool> stopping{false};
    std::atomic<int> streams{0};
    int port = 0;
    const std::string scale = scalePng();

    explicit Impl(LivePipeline& p) : pipeline(p) {}

    // Holds one of the kMaxStreams places (and makes the pipeline work) while a stream is open.
    struct StreamSlot {
        Impl& owner;
        bool held;
        explicit StreamSlot(Impl& o) : owner(o), held(++o.streams <= kMaxStreams) {
            if (held) ++owner.pipeline.watchers;
        }
        ~StreamSlot() {
            --owner.streams;
            if (held) --owner.pipeline.watchers;
        }
    };

    // A held slot for a new stream, or null with a 503 already in `res` when all are taken.
    std::shared_ptr<StreamSlot> openStream(httplib::Response& res) {
        auto slot = std::make_shared<StreamSlot>(*this);
        if (!slot->held) {
            res.status = 503;
            res.set_content("too many streams\n", "text/plain");
            return nullptr;
        }
        res.set_header("Cache-Control", "no-store");
        return slot;
    }

    void routes();
    void imageStream(httplib::Response& res, std::string Products::*image);
    void events(httplib::Response& res);
    void control(const httplib::Request& req, httplib::Response& res);
};

// One JPEG after another in a multipart response; with nothing new within a second the last one
// is sent again, which also finds out early when the client has gone.
void ViewerServer::Impl::imageStream(httplib::Response& res, std::string Products::*image) {
    std::shared_ptr<StreamSlot> slot = openStream(res);
    if (!slot) return;
    res.set_chunked_content_provider(
        "multipart/x-mixed-replace; boundary=orvoframe",
        [this, slot, image, last = uint64_t(0)](size_t, httplib::DataSink& sink) mutable {
            std::shared_ptr<const Products> p = pipeline.waitNewer(last, 1000);
            if (stopping) return false;
            if (!p) p = pipeline.latest();
            if (!p) return true;
            last = p->version;
            const std::string& jpeg = (*p).*image;
            char head[128];
            const int n = std::snprintf(head, sizeof head,
                                        "--orvoframe\r\nContent-Type: image/jpeg\r\nContent-Length: %zu\r\n\r\n",
                                        jpeg.size());
            return sink.write(head, size_t(n)) && sink.write(jpeg.data(), jpeg.size()) && sink.write("\r\n", 2);
        });
}

// Server-sent events: "frame" with each publication's telemetry, "health" twice a second.
void ViewerServer::Impl::events(httplib::Response& res) {
    std::shared_ptr<StreamSlot> slot = openStream(res);
    if (!slot) return;
    using Clock = std::chrono::steady_clock;
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, slot, last = uint64_t(0), next_health = Clock::time_point()](size_t, httplib::DataSink& sink) mutable {
            std::shared_ptr<const Products> p = pipeline.waitNewer(last, 250);
            if (stopping) return false;
            std::string out;
            if (p) {
                last = p->version;
                out = "event: frame\ndata: " + p->telemetry + "\n\n";
            }
            if (Clock::now() >= next_health) {
                next_health = Clock::now() + std::chrono::milliseconds(500);
                out += "event: health\ndata: " + pipeline.healthJson() + "\n\n";
            }
            return out.empty() || sink.write(out.data(), out.size());
        });
}

// Changes settings. Asks for a header a plain link or a form on another site cannot send, so
// that only the page (or a deliberate client) can change what the camera loop does.
void ViewerServer::Impl::control(const httplib::Request& req, httplib::Response& res) {
    if (req.get_header_value("X-Orvo-Control") != "1") {
        res.status = 403;
        res.set_content("controls need the X-Orvo-Control: 1 header\n", "text/plain");
        return;
    }
    ViewerSettings s = pipeline.settings();
    s.matcher = flag(req, "matcher", s.matcher);
    s.rectify = flag(req, "rectify", s.rectify);
    s.paused = flag(req, "paused", s.paused);
    if (req.has_param("disparities")) {
        const std::string v = req.get_param_value("disparities");
        const int d = v.size() <= 3 ? std::atoi(v.c_str()) : 0;
        if (d < 16 || d > 256 || d % 16 != 0) {
            res.status = 400;
            res.set_content("disparities: a multiple of 16 from 16 to 256\n", "text/plain");
            return;
        }
        s.disparities = d;
    }
    pipeline.setSettings(s);
    res.set_content(pipeline.healthJson(), "application/json");
}

void ViewerServer::Impl::routes() {
    // Only GET (and HEAD, which httplib answers from the GET routes) is served.
    http.set_pre_routing_handler([](const httplib::Request& req, httplib::Response& res) {
        if (req.method == "GET" || req.method == "HEAD") return httplib::Server::HandlerResponse::Unhandled;
        res.status = 405;
        res.set_header("Allow", "GET, HEAD");
        res.set_content("method not allowed\n", "text/plain");
        return httplib::Server::HandlerResponse::Handled;
    });
    http.set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (res.body.empty()) res.set_content(std::to_string(res.status) + "\n", "text/plain");
    });
    http.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                              {"Content-Security-Policy", "default-src 'self'; img-src 'self' blob: data:"},
                              {"Referrer-Policy", "no-referrer"}});

    auto asset = [](const char* name, httplib::Response& res) {
        const Asset* a = findAsset(name);
        if (!a) {
            res.status = 404;
            return;
        }
        res.set_content(a->body.data(), a->body.size(), std::string(a->type).c_str());
    };
    http.Get("/", [asset](const httplib::Request&, httplib::Response& res) { asset("index.html", res); });
    http.Get(R"(/static/([A-Za-z0-9_][A-Za-z0-9_.-]{0,39}\.(js|css)))",
             [asset](const httplib::Request& req, httplib::Response& res) { asset(req.matches[1].str().c_str(), res); });
    http.Get(R"(/stream/left\.mjpg)", [this](const httplib::Request&, httplib::Response& res) {
        imageStream(res, &Products::left_jpeg);
    });
    http.Get(R"(/stream/right\.mjpg)", [this](const httplib::Request&, httplib::Response& res) {
        imageStream(res, &Products::right_jpeg);
    });
    http.Get(R"(/stream/depth\.mjpg)", [this](const httplib::Request&, httplib::Response& res) {
        imageStream(res, &Products::depth_jpeg);
    });
    http.Get("/events", [this](const httplib::Request&, httplib::Response& res) { events(res); });
    http.Get("/health", [this](const httplib::Request&, httplib::Response& res) {
        res.set_content(pipeline.healthJson(), "application/json");
    });
    http.Get("/control", [this](const httplib::Request& req, httplib::Response& res) { control(req, res); });
    http.Get(R"(/scale\.png)", [this](const httplib::Request&, httplib::Response& res) {
        res.set_content(scale, "image/png");
    });
    http.Get(R"(/cloud\.bin)", [this](const httplib::Request&, httplib::Response& res) {
        std::shared_ptr<const Products> p = pipeline.latest();
        if (!p) return void(res.status = 503);
        res.set_header("Cache-Control", "no-store");
        res.set_content(p->cloud, "application/octet-stream");
    });
    // Snapshots: the newest frame as one PNG (left | right | disparity) and its cloud as PLY.
    http.Get(R"(/snapshot\.png)", [this](const httplib::Request&, httplib::Response& res) {
        std::shared_ptr<const Products> p = pipeline.latest();
        if (!p) return void(res.status = 503);
        cv::Mat left, right, row;
        cv::cvtColor(p->left, left, cv::COLOR_GRAY2BGR);
        cv::cvtColor(p->right, right, cv::COLOR_GRAY2BGR);
        cv::hconcat(std::vector<cv::Mat>{left, right, p->depth_colour}, row);
        attachment(res, png(row), "image/png", "orvo_" + std::to_string(p->sequence) + ".png");
    });
    http.Get(R"(/snapshot\.ply)", [this](const httplib::Request&, httplib::Response& res) {
        std::shared_ptr<const Products> p = pipeline.latest();
        if (!p || p->points.empty()) {
            res.status = 503;
            res.set_content("no point cloud: the matcher is off or nothing was published yet\n", "text/plain");
            return;
        }
        char path[] = "/tmp/orvo-view-XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0) return void(res.status = 500);
        ::close(fd);
        orvo::write_ply(path, p->points, p->points_grey);
        std::ifstream in(path, std::ios::binary);
        std::string body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        ::unlink(path);
        attachment(res, body, "application/octet-stream", "orvo_" + std::to_string(p->sequence) + ".ply");
    });
}

ViewerServer::ViewerServer(LivePipeline& pipeline, const ServerOptions& options)
    : impl_(std::make_unique<Impl>(pipeline)) {
    httplib::Server& http = impl_->http;
    http.new_task_queue = [] { return new BoundedPool(kWorkerThreads, kQueuedConnections); };
    http.set_read_timeout(kReadTimeoutSeconds, 0);
    http.set_write_timeout(kWriteTimeoutSeconds, 0);
    http.set_keep_alive_timeout(2);
    http.set_keep_alive_max_count(100);
    http.set_payload_max_length(4096);  // requests carry no body worth having
    impl_->routes();
    impl_->port = options.port == 0 ? http.bind_to_any_port(options.bind)
                                    : (http.bind_to_port(options.bind, options.port) ? options.port : -1);
    if (impl_->port <= 0)
        throw std::runtime_error("cannot listen on " + options.bind + ":" + std::to_string(options.port) +
                                 " (in use, or not an address of this machine)");
}

ViewerServer::~ViewerServer() { stop(); }

int ViewerServer::port() const { return impl_->port; }

void ViewerServer::start() {
    impl_->thread = std::thread([this] { impl_->http.listen_after_bind(); });
}

void ViewerServer::stop() {
    if (!impl_->thread.joinable()) return;
    impl_->stopping = true;
    impl_->http.stop();
    impl_->thread.join();
}

}  // namespace orvo_viewer
