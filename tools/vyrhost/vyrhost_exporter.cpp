#include "vyrhost_exporter.h"

#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstring>

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
    unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ERROR_LOG;
    if (found->ai_family == AF_INET6) flags |= MHD_USE_IPv6;
    daemon_ =
        MHD_start_daemon(flags, address.port, nullptr, nullptr, &handle, this, MHD_OPTION_SOCK_ADDR,
                         found->ai_addr, MHD_OPTION_CONNECTION_TIMEOUT, 10u, MHD_OPTION_END);
    freeaddrinfo(found);
    if (!daemon_)
        return "cannot listen on " + address.host + ":" + port +
               " (address in use, or not an address of this machine?)";
    address_ = address;
    const union MHD_DaemonInfo *info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
    port_ = info ? info->port : address.port;
    return "";
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
    if (daemon_) MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
}

std::string Exporter::url() const {
    std::string host = address_.ipv6 ? "[" + address_.host + "]" : address_.host;
    return "http://" + host + ":" + std::to_string(port_) + "/metrics";
}

}  // namespace vyrhost
