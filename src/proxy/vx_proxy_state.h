/*
 * VXProxy: state of the local proxy process, one per process.
 * proxyServerFlag, its first member, tells the whole library whether it runs
 * inside the proxy process.
 */
#ifndef VX_PROXY_STATE_H
#define VX_PROXY_STATE_H

#include <apr_network_io.h>
#include <apr_poll.h>
#include <apr_pools.h>

struct VXProxy_t {
    int proxyServerFlag;
    char proxyConType;
    char* vxProxyUnixDomainPath;
    char* vxHomePath;
    char* vxcHost;
    char* proxyHost;
    char* tierName;
    char* appName;
    char* serverName;
    unsigned int proxyPort;
    unsigned int udpPort;
    unsigned int vxcPort;
    int udpTimeout;
    int numInstances;
    int numUdpInstances;
    int maxUdpProcess;
    int sktFd;
    apr_pool_t* proxy_pool;
    apr_socket_t* skt;
    apr_socket_t* udp_skt;
    int udp_client_timeout;
    int udp_tumult_timeout;
    char* kpCookie;
    int enableVXSession;
    char* vxCookie;
    char* DomainName;
    int headerInResponse;
    int mpos;
    void* lws_handler;
    apr_pollset_t* pollset;
    const apr_pollfd_t* ret_pfd;
    apr_pollfd_t* pfd;
};

extern "C" {
extern VXProxy_t VXProxy;

/* Reset the proxy state: flag off, port 443, a fresh "127.0.0.1" host. */
void initializeProxyStruct(void);
}

#endif
