#include "flowpath/vx_method_announce.h"

#include <apr_hash.h>

#include <cstdio>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_limits.h"
#include "core/vx_record_door.h"
#include "core/vx_thread.h"
#include "flowpath/vx_method_table.h"

namespace {

bool data_thread_running()
{
    VXProxyInstance_t* app = vx_app();
    return app && vx::load_relaxed(app->VXBCISetting.data_thread_running) == 1;
}

}  // namespace

bool vx::method_metadata_wanted()
{
    VXProxyInstance_t* app = vx_app();
    return app && (app->isRunTime || !app->Server.doNotDumpMetaData);
}

/* Record 5: "5,<name>,<id>", cut to 1,023 bytes; only while the data thread
 * runs. */
void vx::announce_method_id(methodPropProperties* m)
{
    if (!data_thread_running()) return;
    char buf[vx::kMetaRecordSize];
    vx::dump_record(buf, sizeof buf, "5,%s,%d\n", m->methodName, m->methodId);
}

/* Record 5 for a method the collector has not seen: with its signature when
 * it has a return type. */
void vx::announce_new_method(methodPropProperties* m)
{
    if (m->methodRetType) {
        dumpMetadataForSig(m);
    } else {
        vx::announce_method_id(m);
        vx::store_relaxed(m->usedFlag, 1);
    }
}

size_t vx::method_signature_record(const methodPropProperties* mPP, char* buf, size_t cap)
{
    if (!mPP || !buf || cap < 2) return 0;
    char args[vx::kMethodKeySize] = "";
    size_t used = 0;
    for (unsigned i = 0; i < mPP->methodArgsListCount && used < sizeof args - 1; ++i) {
        /* An argument without a name prints as a blank. */
        const char* arg = mPP->methodArgList[i].argName ? mPP->methodArgList[i].argName : " ";
        int n = snprintf(args + used, sizeof args - used, "%s;", arg);
        if (n < 0) break;
        used += static_cast<size_t>(n);
    }
    const int n = snprintf(buf, cap, "5,%s(%s)%s,%d\n", mPP->methodName, args,
                           mPP->methodRetType ? mPP->methodRetType : "", mPP->methodId);
    if (n <= 0) return 0;
    return vx::end_line(buf, static_cast<size_t>(n) < cap ? static_cast<size_t>(n) : cap, cap);
}

extern "C" void dumpMetadataForSig(methodPropProperties* mPP)
{
    if (!mPP || !data_thread_running()) return;
    char buf[vx::kMethodKeySize];
    const size_t len = vx::method_signature_record(mPP, buf, sizeof buf);
    if (len) dumpData(buf, static_cast<int>(len));
}

extern "C" void dumpMethodTableMetaData(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);
    node_t* node = app->methodTable.methodHashMapNode;
    if (!node || !node->ptr) return;
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, node->ptr); hi; hi = apr_hash_next(hi)) {
        auto* m = static_cast<methodPropProperties*>(apr_hash_this_val(hi));
        if (m->methodRetType)
            dumpMetadataForSig(m);
        else
            vx::announce_method_id(m);
    }
}
