// The Prometheus exporter: an HTTP server (libmicrohttpd, its own thread)
// that answers GET /metrics with the last exposition vyrhost published.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "vyrhost_options.h"

struct MHD_Daemon;

namespace vyrhost {

class Exporter {
  public:
    Exporter() = default;
    ~Exporter() { stop(); }
    Exporter(const Exporter &) = delete;
    Exporter &operator=(const Exporter &) = delete;

    // "" once the server listens, else why it could not.
    std::string start(const ListenAddress &address, const std::string &initial_body);
    // Replaces the whole body at once: a scrape sees either the old poll's
    // device set or the new one, never a mix.
    void publish(std::string body);
    void stop();

    uint16_t port() const { return port_; }
    std::string url() const;  // http://ADDR:PORT/metrics

    // Called on libmicrohttpd's thread.
    std::shared_ptr<const std::string> body() const;
    void server_message(const std::string &text);

    // Clients held at once: well below the descriptor limit.
    static unsigned connection_limit();
    static const unsigned kMaxConnections = 128;
    static const unsigned kConnectionTimeout = 3;  // seconds without a byte
    static const size_t kMaxShown = 8;             // distinct server messages shown

  private:
    void accept_loop();

    mutable std::mutex lock_;
    std::shared_ptr<const std::string> body_;
    MHD_Daemon *daemon_ = nullptr;
    ListenAddress address_;
    uint16_t port_ = 0;
    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    std::thread acceptor_;
    std::mutex log_lock_;
    std::set<std::string> shown_;
};

}  // namespace vyrhost
