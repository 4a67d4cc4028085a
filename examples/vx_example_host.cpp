/*
 * A small native host: it loads the agent, runs a handful of transactions
 * and prints every record the agent produced for the collector.
 *
 * At this stage no collector is connected (connect_vxc 0): the host opens the
 * session itself through the engine's session hook and watches the records
 * at the data channel's door.
 */
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/vx_instance.h"
#include "core/vx_platform.h"
#include "core/vx_trace_log.h"
#include "link/vx_data_dispatcher.h"
#include "link/vx_session.h"
#include "vx_sdk.h"

namespace {

int g_records = 0;

void print_record(const char* data, int len, void*)
{
    ++g_records;
    printf("  record %.*s", len, data);
    if (len > 0 && data[len - 1] != '\n') printf("\n");
}

char* S(const char* s) { return const_cast<char*>(s); }

/* One transaction: `ms` long (backdated, so the demo does not sleep), with
 * the given caller header and final status. */
void transaction(const char* label, const char* caller, const char* url, long long ms, int status)
{
    printf("%s: %s -> %d in %lld ms\n", label, url, status, ms);
    long long now = my_gettimeofday();
    auto* td = static_cast<VXPerThreadData_t*>(startFP(S(caller), S(url), nullptr, nullptr, nullptr,
                                                        nullptr, nullptr, -1, now - ms));
    if (!td) {
        printf("  (no record: is a session running?)\n");
        return;
    }
    endFP(td, status, nullptr, 0, 0, 0, nullptr);
    reset(td);
}

}  // namespace

int main()
{
    agent_init(S("DemoPool"), 0, S("demo-host"), S("cppAgent"), S("1.0.0"));
    vx::data_sink_set(print_record, nullptr);

    /* The session the collector would open: test run 1, times counted from
     * the start of today. */
    long long now = my_gettimeofday();
    vx::session_start(1, now - now % 86400000LL);
    tlvxApplication->VXSys.bciInstrSessionPct = 100;

    transaction("fast, captured", nullptr, "/home", 12, 200);
    transaction("with a query and a method", nullptr, "/search?q=shoes&page=2|GET", 85, 200);
    transaction("slow", nullptr, "/checkout", 3200, 200);
    transaction("very slow", nullptr, "/report/yearly", 5400, 200);
    transaction("error", nullptr, "/api/pay|POST", 40, 500);
    transaction("called by another tier", "4611686018427387905_4611686018427387903_1.2_NA", "/api/stock", 7, 200);
    transaction("forced by the caller", "4611686018427392001F", "/api/stock", 9, 200);

    tlvxApplication->VXSys.bciInstrSessionPct = 0;
    transaction("fast, not captured (sends nothing)", nullptr, "/health", 2, 200);

    vx::session_stop();
    printf("\n%d records produced.\n", g_records);
    if (trace_log_key) printf("Trace log: %s\n", trace_log_key->log_file[trace_log_key->cur_index]);
    agent_shutdown();
    return 0;
}
