#include "flowpath/vx_thread_callout.h"

#include "agent/vx_instance.h"
#include "core/vx_text_writer.h"
#include "core/vx_thread.h"
#include "flowpath/vx_method_events.h"
#include "flowpath/vx_per_thread_data.h"
#include "flowpath/vx_thread_id_map.h"

extern "C" void vxThreadCallOut(VXPerThreadData_t* vxTD, long long threadId) VX_NOEXCEPT
{
    if (!vxTD || !vx_app()) return;
    {
        /* The method events of other threads of the transaction write the
         * same blob: the token takes their lock. */
        vx::VXLockGuard guard(vxTD->sequenceBlobLock);
        ++vxTD->seqNum;
        const int used = vxTD->sequenceBlobLen < vx::kSeqBlobSize ? vxTD->sequenceBlobLen : vx::kSeqBlobSize;
        vx::TextWriter w(vxTD->sequenceBlob + used, static_cast<size_t>(vx::kSeqBlobSize - used));
        w.write('t', vxTD->seqNum, '_');
        const long long len = static_cast<long long>(used) + static_cast<long long>(w.finish());
        vxTD->sequenceBlobLen = len < vx::kSeqBlobSize ? static_cast<int>(len) : vx::kSeqBlobSize;
        checkToDumpFPSeqBlob(vxTD);
    }
    updateChildThreadPrevFPI(vxTD, threadId);
}

extern "C" VXPerThreadData_t* setObjForThreadCallOut(VXPerThreadData_t* vxTD, long long threadId) VX_NOEXCEPT
{
    vxThreadCallOut(vxTD, threadId);
    return vxTD;
}

extern "C" void updateChildThreadPrevFPI(VXPerThreadData_t* vxTD, long long threadId) VX_NOEXCEPT
{
    if (!vxTD) return;
    const long long first = vxTD->firstFlowpathInstance ? vxTD->firstFlowpathInstance : vxTD->flowpathInstance;
    vx::with_thread_placeholder(threadId, [&](VXPerThreadData_t* child) {
        setFirstPrevFlowpath(child, first, vxTD->flowpathInstance);
    });
}

extern "C" void setFirstPrevFlowpath(VXPerThreadData_t* vxTD, long long firstFlowpathInstance,
                                     long long prevFlowpathInstance) VX_NOEXCEPT
{
    if (!vxTD) return;
    vxTD->firstFlowpathInstance = firstFlowpathInstance;
    vxTD->prevFlowpathInstance = prevFlowpathInstance;
    vxTD->tlStatusCode = kChildThreadStatus;
}
