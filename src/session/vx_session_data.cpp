#include "session/vx_session_data.h"

#include <apr_time.h>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "core/vx_atomic.h"
#include "core/vx_record_door.h"
#include "diag/vx_autosensor_thread.h"
#include "diag/vx_sql_processor.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"
#include "link/vx_as_link.h"
#include "link/vx_control_link.h"
#include "link/vx_control_thread.h"
#include "monitor/vx_backend_monitor.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_monitor_model.h"
#include "session/vx_control_dispatch.h"
#include "session/vx_metadata_replay.h"

extern "C" void free_agent_data(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    free_preparedQueryIDLookup();
    /* Transaction tags keep their values on the monitor models: they go with
     * free_threadBasedModelMap below. */
    vx::bt_session_free();
    if (node_t* table = vx::load_acquire(app->methodTable.methodHashMapNode)) {
        /* Method events already inside the table when the session's flag
         * fell finish on it; the wait gives them time. */
        vx::wait_or_shutdown(apr_time_from_sec(vx::kMetaDrainSeconds));
        vx::retire_method_table(table);
    }
    vx::backend_monitor_unbind_all(); /* the table's backends are gone with it */
    /* The models' counters and the slots go: the next session numbers its
     * slots from 0. */
    free_threadBasedModelMap();
    Free_BT_Tag_Map();
}

namespace {

/* Every data connection is told every id before a record uses one: a new
 * test run (doNotDumpMetaData) wrote no metadata as its tables filled, and
 * a collector reads a reconnected or late connection without the records
 * the last one carried. */
void replay_metadata()
{
    if (vx_app()) dumpALLMetaDataOnTestStart();
}

}  // namespace

void vx::session_register_hooks()
{
    vx::control_set_message_handler(handleReceivedClientMessageFromVXCollector);
    vx::data_hook_register(vx::DataHook::kConnected, replay_metadata);
    vx::data_hook_register(vx::DataHook::kStopping, dumpFpFromBusyList);
    vx::data_hook_register(vx::DataHook::kSessionFree, free_agent_data);
    vx::as_thread_set_body(start_autoSensor_thread);
}
