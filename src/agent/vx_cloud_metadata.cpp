#include "agent/vx_cloud_metadata.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/vx_limits.h"
#include "core/vx_trace_log.h"

namespace {

constexpr char kAddrEnv[] = "VX_CLOUD_METADATA_ADDR";
constexpr char kDefaultAddr[] = "169.254.169.254:80";

std::atomic<bool> g_down{false};

long long now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool name_ok(const char* name)
{
    if (!name || !*name) return false;
    for (const char* p = name; *p; ++p)
        if (!isalnum(static_cast<unsigned char>(*p)) && !strchr("-_./", *p)) return false;
    return true;
}

bool parse_addr(const char* text, sockaddr_in& sa)
{
    char host[64];
    const char* colon = strrchr(text, ':');
    if (!colon || static_cast<size_t>(colon - text) >= sizeof host) return false;
    memcpy(host, text, colon - text);
    host[colon - text] = '\0';
    char* end;
    const long port = strtol(colon + 1, &end, 10);
    if (*end || port <= 0 || port > 65535) return false;
    memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    return inet_pton(AF_INET, host, &sa.sin_addr) == 1;
}

/* A connected socket within the connect limit, or -1. */
int connect_within(const sockaddr_in& sa, int timeoutMs)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0) return fd;
    if (errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        int err = 0;
        socklen_t len = sizeof err;
        if (poll(&p, 1, timeoutMs) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 &&
            err == 0)
            return fd;
    }
    close(fd);
    return -1;
}

/* Sends the request and reads the answer until the peer closes, the
 * bound is reached or the deadline passes. Bytes read, or -1. */
int exchange(int fd, const char* req, char* buf, size_t cap, long long deadline)
{
    size_t sent = 0, len = strlen(req);
    size_t got = 0;
    while (sent < len || got + 1 < cap) {
        const long long left = deadline - now_ms();
        if (left <= 0) return -1;
        pollfd p{fd, static_cast<short>(sent < len ? POLLOUT : POLLIN), 0};
        const int n = poll(&p, 1, static_cast<int>(left));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        if (sent < len) {
            const ssize_t w = send(fd, req + sent, len - sent, MSG_NOSIGNAL);
            if (w < 0 && errno != EINTR && errno != EAGAIN) return -1;
            if (w > 0) sent += static_cast<size_t>(w);
            continue;
        }
        const ssize_t r = recv(fd, buf + got, cap - 1 - got, 0);
        if (r < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        got += static_cast<size_t>(r);
    }
    buf[got] = '\0';
    return static_cast<int>(got);
}

int build_request(vx::Cloud cloud, const char* name, char* req, size_t cap)
{
    switch (cloud) {
        case vx::Cloud::Aws:
            return snprintf(req, cap, "GET /latest/meta-data/%s HTTP/1.0\r\nHost: metadata\r\n\r\n",
                            name);
        case vx::Cloud::Gcp:
            return snprintf(req, cap,
                            "GET /computeMetadata/v1/instance/%s HTTP/1.0\r\nHost: metadata\r\n"
                            "Metadata-Flavor: Google\r\n\r\n",
                            name);
        case vx::Cloud::Azure:
            return snprintf(req, cap,
                            "GET /metadata/instance/compute/%s?api-version=2021-02-01&format=text "
                            "HTTP/1.0\r\nHost: metadata\r\nMetadata: true\r\n\r\n",
                            name);
    }
    return -1;
}

}  // namespace

void vx::cloud_metadata_reset()
{
    g_down.store(false, std::memory_order_relaxed);
}

int vx::cloud_metadata_get(Cloud cloud, const char* name, char* out, size_t cap)
{
    if (!out || cap == 0) return -1;
    out[0] = '\0';
    if (!name_ok(name)) {
        VX_ERROR("CONTROL_THREAD", "Cloud metadata name '%s' refused", name ? name : "");
        return -1;
    }
    if (g_down.load(std::memory_order_relaxed)) return -1;
    const char* env = getenv(kAddrEnv);
    const char* addr = env && *env ? env : kDefaultAddr;
    sockaddr_in sa;
    if (!parse_addr(addr, sa)) {
        VX_ERROR("CONTROL_THREAD", "%s '%s' is not host:port", kAddrEnv, addr);
        g_down.store(true, std::memory_order_relaxed);
        return -1;
    }
    char req[512];
    const int reqLen = build_request(cloud, name, req, sizeof req);
    if (reqLen < 0 || static_cast<size_t>(reqLen) >= sizeof req) return -1;
    const int fd = connect_within(sa, vx::kCloudConnectTimeoutMs);
    if (fd < 0) {
        VX_ERROR("CONTROL_THREAD",
                 "Cloud metadata service at %s is not reachable; cloud tags stay unresolved", addr);
        g_down.store(true, std::memory_order_relaxed);
        return -1;
    }
    char* buf = static_cast<char*>(malloc(vx::kCloudAnswerMax));
    const int got =
        buf ? exchange(fd, req, buf, vx::kCloudAnswerMax, now_ms() + vx::kCloudReadTimeoutMs) : -1;
    close(fd);
    int rc = -1;
    if (got < 0) {
        VX_ERROR("CONTROL_THREAD", "Cloud metadata service at %s did not answer in time", addr);
        g_down.store(true, std::memory_order_relaxed);
    } else if (strncmp(buf, "HTTP/1.", 7) != 0 || strncmp(buf + 8, " 200", 4) != 0) {
        VX_ERROR("CONTROL_THREAD", "Cloud metadata '%s' not found at %s", name, addr);
    } else if (const char* body = strstr(buf, "\r\n\r\n")) {
        body += 4;
        size_t n = strcspn(body, "\r\n");
        if (n > cap - 1) n = cap - 1;
        memcpy(out, body, n);
        out[n] = '\0';
        rc = n ? 0 : -1;
    }
    free(buf);
    return rc;
}
