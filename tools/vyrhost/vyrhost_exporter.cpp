#include "vyrhost_exporter.h"

#include <microhttpd.h>
#include <netdb.h>
#include <sys/resource.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include <cerrno>
#include <cstring>
#include <deque>
#include <vector>

namespace vyrhost {

namespace {

// The text format's media type, as Prometheus asks for it.
const char kMetricsType[] = "text/plain; version=0.0.4; charset=utf-8";
const char kPointer[] = "vyrhost: the plug-in's Prometheus metrics are at /metrics\n";
const char kNotFound[] = "not found: the metrics are at /metrics\n";
const char kBadMethod[] = "only GET and HEAD are served\n";

MHD_Response *make_response(const std::string &body) {
#if MHD_VERSION >= 0x00097701
    return MHD_create_response_from_buffer_copy(body.size(), body.data());
#else
    return MHD_create_response_from_buffer(body.size(), const_cast<char *>(body.data()),
                                           MHD_RESPMEM_MUST_COPY);
#endif
}

MHD_Result reply(MHD_Connection *connection, unsigned status, const std::string &body,
                 const char *type) {
    MHD_Response *response = make_response(body);
    if (!response) return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

// The server's own messages: each distinct one is shown once, so a flood of
// connections costs a line, not one per connection.
void server_log(void *cls, const char *format, va_list args) {
    Exporter *exporter = static_cast<Exporter *>(cls);
    char text[512];
    vsnprintf(text, sizeof text, format, args);
    std::string line = text;
    while (!line.empty() && (line.back() == '\n' || line.back() == '.')) line.pop_back();
    exporter->server_message(line);
}

MHD_Result handle(void *cls, MHD_Connection *connection, const char *url, const char *method,
                  const char *, const char *, size_t *, void **) {
    const Exporter *exporter = static_cast<const Exporter *>(cls);
    const char *plain = "text/plain; charset=utf-8";
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0 && strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
        return reply(connection, MHD_HTTP_METHOD_NOT_ALLOWED, kBadMethod, plain);
    if (strcmp(url, "/metrics") == 0) {
        std::shared_ptr<const std::string> body = exporter->body();
        return reply(connection, MHD_HTTP_OK, body ? *body : std::string(), kMetricsType);
    }
    if (strcmp(url, "/") == 0) return reply(connection, MHD_HTTP_OK, kPointer, plain);
    return reply(connection, MHD_HTTP_NOT_FOUND, kNotFound, plain);
}

}  // namespace

std::string Exporter::start(const ListenAddress &address, const std::string &initial_body) {
    publish(initial_body);
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = address.ipv6 ? AF_INET6 : AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    struct addrinfo *found = nullptr;
    std::string port = std::to_string(address.port);
    int rc = getaddrinfo(address.host.c_str(), port.c_str(), &hints, &found);
    if (rc != 0 || !found) return "cannot use address '" + address.host + "': " + gai_strerror(rc);
    std::string where = address.host + ":" + port;
    listen_fd_ = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int one = 1;
    if (listen_fd_ >= 0) setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    bool bound = listen_fd_ >= 0 && bind(listen_fd_, found->ai_addr, found->ai_addrlen) == 0 &&
                 listen(listen_fd_, 128) == 0;
    int why = errno;
    freeaddrinfo(found);
    if (!bound) {
        stop();
        return "cannot listen on " + where + ": " + strerror(why);
    }
    struct sockaddr_storage local;
    socklen_t length = sizeof local;
    if (getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&local), &length) == 0)
        port_ =
            ntohs(local.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&local)->sin6_port
                                              : reinterpret_cast<sockaddr_in *>(&local)->sin_port);

    // vyrhost accepts the connections itself (below); the server only gets
    // the ones that have sent something.
    unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ERROR_LOG | MHD_USE_POLL |
                     MHD_USE_ITC | MHD_USE_NO_LISTEN_SOCKET;
    daemon_ =
        MHD_start_daemon(flags, 0, nullptr, nullptr, &handle, this, MHD_OPTION_EXTERNAL_LOGGER,
                         &server_log, this, MHD_OPTION_CONNECTION_LIMIT, connection_limit(),
                         MHD_OPTION_CONNECTION_TIMEOUT, kConnectionTimeout, MHD_OPTION_END);
    if (!daemon_ || pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        stop();
        return "cannot start the HTTP server for " + where;
    }
    address_ = address;
    acceptor_ = std::thread([this] { accept_loop(); });
    return "";
}

// Takes every connection at once, so that idle ones never fill the listen
// queue, and holds it until its first bytes arrive. Idle connections are
// dropped after a second, the oldest first when too many wait: a flood of
// them costs descriptors up to a fixed bound, and a scrape, which sends its
// request at once, still gets through.
void Exporter::accept_loop() {
    struct Waiting {
        int fd;
        double deadline;
        sockaddr_storage peer;
        socklen_t length;
    };
    std::deque<Waiting> waiting;
    const size_t max_waiting = connection_limit();
    auto now = [] {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return ts.tv_sec + ts.tv_nsec / 1e9;
    };
    for (;;) {
        std::vector<pollfd> fds = {{wake_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
        for (const Waiting &w : waiting) fds.push_back({w.fd, POLLIN, 0});
        int timeout = waiting.empty() ? -1 : 100;
        if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) break;
        if (fds[0].revents) break;
        double t = now();
        std::deque<Waiting> still;
        for (size_t k = 0; k < waiting.size(); ++k) {
            Waiting &w = waiting[k];
            short ev = fds[k + 2].revents;
            if (ev & POLLIN)
                MHD_add_connection(daemon_, w.fd, reinterpret_cast<sockaddr *>(&w.peer),
                                   w.length);  // closes it when it cannot take it
            else if (ev || t > w.deadline)
                close(w.fd);
            else
                still.push_back(w);
        }
        waiting.swap(still);
        if (!(fds[1].revents & POLLIN)) continue;
        for (;;) {
            Waiting w;
            w.length = sizeof w.peer;
            w.fd = accept4(listen_fd_, reinterpret_cast<sockaddr *>(&w.peer), &w.length,
                           SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (w.fd < 0) {
                if (errno == EMFILE || errno == ENFILE) {
                    server_message("out of file descriptors; dropping waiting connections");
                    if (!waiting.empty()) {
                        close(waiting.front().fd);
                        waiting.pop_front();
                        continue;
                    }
                }
                break;
            }
            w.deadline = t + 1.0;
            if (waiting.size() >= max_waiting) {
                server_message("too many idle connections; dropping the oldest");
                close(waiting.front().fd);
                waiting.pop_front();
            }
            waiting.push_back(w);
        }
    }
    for (const Waiting &w : waiting) close(w.fd);
}

void Exporter::publish(std::string body) {
    auto fresh = std::make_shared<const std::string>(std::move(body));
    std::lock_guard<std::mutex> hold(lock_);
    body_ = std::move(fresh);
}

std::shared_ptr<const std::string> Exporter::body() const {
    std::lock_guard<std::mutex> hold(lock_);
    return body_;
}

void Exporter::stop() {
    if (acceptor_.joinable()) {
        char c = 'x';
        ssize_t ignored = write(wake_[1], &c, 1);
        (void)ignored;
        acceptor_.join();
    }
    for (int *fd : {&wake_[0], &wake_[1], &listen_fd_}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
    if (daemon_) MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
}

unsigned Exporter::connection_limit() {
    // A quarter of the descriptors at most: the plug-in needs the rest for
    // its tool runs and files, however many clients connect.
    struct rlimit limit;
    rlim_t files = getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 1024;
    if (files == RLIM_INFINITY || files > 4 * kMaxConnections) return kMaxConnections;
    return std::max<unsigned>(4, static_cast<unsigned>(files / 4));
}

void Exporter::server_message(const std::string &text) {
    std::lock_guard<std::mutex> hold(log_lock_);
    if (shown_.size() >= kMaxShown || !shown_.insert(text).second) return;
    fprintf(stderr, "vyrhost: HTTP server: %s (shown once)\n", text.c_str());
    fflush(stderr);
}

std::string Exporter::url() const {
    std::string host = address_.ipv6 ? "[" + address_.host + "]" : address_.host;
    return "http://" + host + ":" + std::to_string(port_) + "/metrics";
}

}  // namespace vyrhost
