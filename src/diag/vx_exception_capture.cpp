#include "diag/vx_exception_capture.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_encode.h"
#include "core/vx_limits.h"
#include "core/vx_record_door.h"
#include "core/vx_retire_list.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_method_events.h"
#include "flowpath/vx_method_table.h"
#include "monitor/vx_exception_monitor.h"

namespace vx {

namespace {

struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};

/* One dictionary: text -> id. The text is the key, the id the value; the
 * record number and the instance counter it draws from are fixed. */
struct Dictionary {
    std::mutex lock;
    std::unordered_map<std::string, int, TextHash, std::equal_to<>> ids;
    bool fullLogged = false;
};

}  // namespace

struct ExceptionDictionaries {
    Dictionary d[5];
};

namespace {

enum Dict { kClass, kThrowingClass, kThrowingMethod, kMessage, kCause };
constexpr int kRecordOf[5] = {32, 33, 34, 35, 36};
constexpr const char* kNameOf[5] = {"exception class", "throwing class", "throwing method",
                                    "message", "cause"};

/* Dictionaries outlive their instance's sessions; owned here so that they
 * are never seen as leaked. */
std::mutex g_registryLock;
std::vector<std::unique_ptr<ExceptionDictionaries>>& registry()
{
    static auto* r = new std::vector<std::unique_ptr<ExceptionDictionaries>>();
    return *r;
}

ExceptionDictionaries* dictionaries(VXProxyInstance_t* app)
{
    ExceptionDictionaries* d = load_acquire(app->exceptionDicts);
    if (d) return d;
    std::lock_guard<std::mutex> g(g_registryLock);
    d = load_relaxed(app->exceptionDicts);
    if (d) return d;
    try {
        registry().push_back(std::make_unique<ExceptionDictionaries>());
    } catch (...) {
        VX_ERROR("EXCEPTION", "Out of memory making the exception dictionaries");
        return nullptr;
    }
    d = registry().back().get();
    store_release(app->exceptionDicts, d);
    return d;
}

int& counter_of(VXProxyInstance_t* app, int which)
{
    VXExceptionIDS_t& c = app->vxExceptionIDS;
    switch (which) {
    case kClass: return c.exceptionClassNameID;
    case kThrowingClass: return c.throwingClassNameID;
    case kThrowingMethod: return c.throwingMethodNameID;
    case kMessage: return c.msgID;
    default: return c.causeID;
    }
}

/* The id of `text` in dictionary `which`, its metadata record sent on first
 * sight inside the dictionary's lock. */
int id_for(int which, const char* text, size_t limit)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !text || !*text) return -1;
    char clean[kExceptionTextMax + 1];
    const size_t n = exception_text_clean(text, limit, clean, sizeof clean);
    if (n == 0) return -1;
    const std::string_view key(clean, n);
    ExceptionDictionaries* all = dictionaries(app);
    if (!all) return -1;
    Dictionary& d = all->d[which];
    std::lock_guard<std::mutex> g(d.lock);
    if (auto it = d.ids.find(key); it != d.ids.end()) return it->second;
    if (d.ids.size() >= static_cast<size_t>(kExceptionDictionaryMax)) {
        if (!d.fullLogged) {
            d.fullLogged = true;
            VX_ERROR("EXCEPTION", "The %s dictionary is full (%d texts); new ones get no id this session",
                     kNameOf[which], kExceptionDictionaryMax);
        }
        return -1;
    }
    int& next = counter_of(app, which);
    const int id = next;
    try {
        d.ids.emplace(std::string(key), id);
    } catch (...) {
        VX_ERROR("EXCEPTION", "Out of memory adding to the %s dictionary", kNameOf[which]);
        return -1;
    }
    ++next;
    dumpExceptionMetaRecord(kRecordOf[which], id, clean);
    return id;
}

bool filtered(const VXException_t& e, const char* className)
{
    if (!load_relaxed(e.isFilteringEnabled) || !className) return false;
    char* const* names = load_acquire(e.currElement);
    for (; names && *names; ++names)
        if (strcmp(*names, className) == 0) return true;
    return false;
}

/* The method key "<class>.<method>" (".<method>" without a class) in the
 * flowpath's generation of the method table, else the current one; the
 * look-up takes the method lock. */
methodPropProperties* find_throwing_method(VXPerThreadData_t* vxTD, const char* cls, const char* method)
{
    VXMethodTable_t* t = method_table();
    if (!t || !method) return nullptr;
    char key[2048];
    TextWriter w(key, sizeof key);
    w.write(cls ? cls : "", '.', method);
    if (w.finish() >= sizeof key) return nullptr; /* no method has such a name */
    node_t* node = vxTD->hasMapNodePtr ? static_cast<node_t*>(vxTD->hasMapNodePtr) : load_acquire(t->methodHashMapNode);
    return getMethodPropFromMethodName(key, node);
}

/* Record 38 in `buf`; returns its length, cut to the buffer with its line
 * feed kept. */
size_t format_record38(char* buf, size_t cap, VXPerThreadData_t* vxTD, long long seconds, int methodId,
                       long long seq, int classId, int throwingClassId, int throwingMethodId, int line,
                       int msgId, int causeId, const char* stack)
{
    TextWriter w(buf, cap);
    w.write(38, ',', vxTD->flowpathInstance, ',', seconds, ',', methodId, ',', seq, ",-1,-1,", classId, ',',
            throwingClassId, ',', throwingMethodId, ',', line < 1 ? -1 : line, ',', msgId, ',', causeId, ',');
    const size_t head = w.stored();
    const size_t stackLen = stack ? strlen(stack) : 0;
    w.put_bytes(stack ? stack : "", stackLen);
    /* The stack is the last field, so its commas stay; its line feeds may
     * not. */
    const size_t end = w.stored();
    for (size_t i = head; i < end; ++i) {
        if (buf[i] == '\n')
            buf[i] = '|';
        else if (buf[i] == '\r')
            buf[i] = ' ';
    }
    w.put('\n');
    w.finish();
    return end_line(buf, w.stored(), cap);
}

}  // namespace

}  // namespace vx

using vx::kClass;
using vx::kThrowingClass;
using vx::kThrowingMethod;
using vx::kMessage;
using vx::kCause;

extern "C" int checkAndgenerateIDForDiscoveredExceptions(char* exceptnName)
{
    return vx::id_for(kClass, exceptnName, vx::kExceptionTextMax);
}
extern "C" int getIDAndDumpThrowingClassName(char* name)
{
    return vx::id_for(kThrowingClass, name, vx::kExceptionTextMax);
}
extern "C" int getIDAndDumpThrowingMethodName(char* name)
{
    return vx::id_for(kThrowingMethod, name, vx::kExceptionTextMax);
}
extern "C" int getIDAndDumpExceptionMessage(char* message)
{
    return vx::id_for(kMessage, message, vx::kExceptionMessageMax);
}
extern "C" int getIDAndDumpExceptionCause(char* cause)
{
    return vx::id_for(kCause, cause, vx::kExceptionTextMax);
}

extern "C" void dumpExceptionMetaRecord(int record_Id, int exceptionStatId, char* exceptionRecord)
{
    if (!exceptionRecord || !*exceptionRecord) return;
    char buf[vx::kMetaRecordSize];
    vx::dump_record(buf, sizeof buf, "%d,%d,%s\n", record_Id, exceptionStatId, exceptionRecord);
}

namespace {

/* The dictionary of record 32 to 36 of the current instance, or null. */
vx::Dictionary* dictionary_of_record(int record)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || record < vx::kRecordOf[0] || record > vx::kRecordOf[4]) return nullptr;
    vx::ExceptionDictionaries* all = vx::load_acquire(app->exceptionDicts);
    return all ? &all->d[record - vx::kRecordOf[0]] : nullptr;
}

}  // namespace

void vx::exception_dictionary_for_each(int record, const std::function<bool(int id, const char* text)>& fn)
{
    Dictionary* d = dictionary_of_record(record);
    if (!d) return;
    std::lock_guard<std::mutex> g(d->lock);
    for (const auto& [text, id] : d->ids)
        if (!fn(id, text.c_str())) return;
}

int vx::exception_dictionary_size(int record)
{
    Dictionary* d = dictionary_of_record(record);
    if (!d) return 0;
    std::lock_guard<std::mutex> g(d->lock);
    return static_cast<int>(d->ids.size());
}

extern "C" void exceptionMapInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    app->vxExceptionIDS = VXExceptionIDS_t{1, 1, 1, 1, 1};
    vx::ExceptionDictionaries* all = vx::load_acquire(app->exceptionDicts);
    if (!all) return; /* made on first use, empty */
    for (auto& d : all->d) {
        std::lock_guard<std::mutex> g(d.lock);
        d.ids.clear();
        d.fullLogged = false;
    }
}

namespace {

/* Writers of the filter list (keyword handlers) and its retired arrays. */
std::mutex g_filterLock;
vx::RetireList g_filterRetired;

void free_names(void* p)
{
    for (char** n = static_cast<char**>(p); *n; ++n) free(*n);
    free(p);
}

/* Publishes `names` (null or null-ended) as the filter list; the old array
 * is released after the grace, with its names when `ownsNames`. Called with
 * g_filterLock held. */
void publish_filter_list(VXException_t& e, char** names, int count, int size, bool ownsNames)
{
    char** old = e.currElement;
    vx::store_relaxed(e.isFilteringEnabled, static_cast<char>(count > 0));
    vx::store_release(e.currElement, names);
    e.filterSizeCount = count;
    e.currSize = size;
    if (old) vx::retire(g_filterRetired, old, ownsNames ? free_names : nullptr);
    vx::retire_collect(g_filterRetired, apr_time_now(), apr_time_from_sec(vx::kFilterRetireGraceSeconds));
}

}  // namespace

extern "C" void setdefaultValuesForException(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXException_t& e = app->vxException;
    {
        std::lock_guard<std::mutex> hold(g_filterLock);
        publish_filter_list(e, nullptr, 0, 0, true);
    }
    vx::store_relaxed(e.exceptionCaptureMode, 1);
    vx::store_relaxed(e.stackTraceCaptureMode, 1);
    vx::store_relaxed(e.exceptionCauseCaptureMode, 1);
    vx::store_relaxed(e.exceptionType, 0);
    vx::store_relaxed(e.stackTraceMaxDepth, 9999);
    vx::store_relaxed(e.exceptionCaptureTraceLevel, 0);
    vx::store_relaxed(e.enableLogger, 1);
    vx::store_relaxed(e.enableTrycatch, 1);
}

extern "C" void setExceptionCaptureSettings(char* value, char*, int)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !value || !*value) return;
    VXException_t& e = app->vxException;
    char copy[vx::kMetaRecordSize];
    vx::copy_text(copy, sizeof copy, value);
    /* Fields are joined by the three characters "%20". */
    char* fields[5] = {};
    int n = 0;
    for (char* f = copy; f && n < 5;) {
        fields[n++] = f;
        char* sep = strstr(f, "%20");
        if (sep) *sep = '\0';
        f = sep ? sep + 3 : nullptr;
    }
    long long v = 0;
    if (n < 1 || !vx::number_in("exceptionCaptureMode", fields[0], 0, 2, &v)) {
        VX_ERROR("EXCEPTION",
                 "VXExceptionCaptureSettings: Returning without setting exceptionCaptureMode, as value is invalid");
        return;
    }
    vx::store_relaxed(e.exceptionCaptureMode, static_cast<int>(v));
    if (n >= 5) {
        if (!vx::number_in("exceptionCauseCaptureMode", fields[4], 0, 1, &v)) return;
        vx::store_relaxed(e.exceptionCauseCaptureMode, static_cast<int>(v));
    }
    if (n >= 2) {
        if (!vx::number_in("stackTraceCaptureMode", fields[1], 0, 1, &v)) return;
        vx::store_relaxed(e.stackTraceCaptureMode, static_cast<int>(v));
    }
    if (vx::load_relaxed(e.stackTraceCaptureMode) == 0) return;
    if (n >= 3) {
        if (!vx::number_in("exceptionType", fields[2], 0, 3, &v) || v == 2) return;
        vx::store_relaxed(e.exceptionType, static_cast<int>(v));
    }
    if (n >= 4) {
        if (!vx::number_in("stackTraceMaxDepth", fields[3], 1, 0x7fffffff, &v)) return;
        vx::store_relaxed(e.stackTraceMaxDepth, static_cast<int>(v));
    }
}

extern "C" void parseExceptionFilteringList(char* value, char*, int)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXException_t& e = app->vxException;
    if (!value || !*value) {
        vx::store_relaxed(e.isFilteringEnabled, static_cast<char>(0));
        return;
    }
    std::lock_guard<std::mutex> hold(g_filterLock);
    /* Names are added to the list in force, never removed but by a reset. */
    std::vector<char*> names;
    try {
        for (char* const* n = e.currElement; n && *n; ++n) names.push_back(*n);
        const size_t kept = names.size();
        std::string_view rest(value);
        for (int seen = 0; !rest.empty() && seen < vx::kExceptionFilterMax; ++seen) {
            const size_t comma = rest.find(',');
            const std::string_view name = rest.substr(0, comma);
            rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
            if (name.empty()) {
                --seen; /* as a tokenizer, empty fields are skipped */
                continue;
            }
            bool known = false;
            for (const char* n : names) known = known || name == n;
            if (known) continue;
            char* copy = strndup(name.data(), name.size());
            if (!copy) throw std::bad_alloc();
            names.push_back(copy);
        }
        if (names.size() == kept) {
            vx::store_relaxed(e.isFilteringEnabled, static_cast<char>(kept > 0));
            return;
        }
        names.push_back(nullptr);
    } catch (...) {
        VX_ERROR("EXCEPTION", "Out of memory growing the exception filter list");
        for (size_t i = e.filterSizeCount; i < names.size(); ++i) free(names[i]);
        return;
    }
    auto* arr = static_cast<char**>(malloc(sizeof(char*) * names.size()));
    if (!arr) {
        VX_ERROR("EXCEPTION", "Out of memory growing the exception filter list");
        for (size_t i = e.filterSizeCount; i + 1 < names.size(); ++i) free(names[i]);
        return;
    }
    memcpy(arr, names.data(), sizeof(char*) * names.size());
    const int count = static_cast<int>(names.size()) - 1;
    /* The old array's names live on in the new one. */
    publish_filter_list(e, arr, count, count + 1, false);
}

extern "C" void setBackendErrorDetectionMode(char* value, char*, int)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !value) return;
    const int mode = atoi(value);
    app->VXSys.backendErrorDetectionMode = mode;
    vx::store_relaxed(app->vxException.enableLogger, static_cast<char>((mode == 1 || mode == 3) ? 1 : 0));
    vx::store_relaxed(app->vxException.enableTrycatch, static_cast<char>((mode == 2 || mode == 3) ? 1 : 0));
}

extern "C" void handleExceptionParameters(VXPerThreadData_t* vxTD, methodPropProperties* mPP,
                                          long long starttime, char* exceptionClassName,
                                          char* exceptionMessage, char* throwingClassName,
                                          char* throwingMethodName, char* getexceptionCause,
                                          int exceptionLineNum, char* stackTraceArr)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    const VXException_t& e = app->vxException;
    if (!mPP) {
        if (app->VXSys.proxyMode) return;
        mPP = vx::find_throwing_method(vxTD, throwingClassName, throwingMethodName);
    }
    const int methodId = mPP ? mPP->methodId : 0;
    if (vx::load_relaxed(e.exceptionCaptureMode) == 0) {
        VX_TRACE(vx::load_relaxed(e.exceptionCaptureTraceLevel), 1, "EXCEPTION",
                 "Not Going to capture exception and 38 record will not dump");
        return;
    }
    const bool noClass = !exceptionClassName || !*exceptionClassName;
    if (noClass && (!exceptionMessage || !*exceptionMessage)) {
        VX_TRACE(vx::load_relaxed(e.exceptionCaptureTraceLevel), 1, "EXCEPTION",
                 "VXExceptionStats: Returning as exception class and exception message is found null");
        return;
    }
    if (vx::filtered(e, exceptionClassName)) return;
    const int classId = checkAndgenerateIDForDiscoveredExceptions(exceptionClassName);
    if (!noClass && vx::load_relaxed(app->VXSys.enableExceptionMonitor) == 1)
        updateCounterAndDurationForException(vxTD, exceptionClassName);
    const int throwingClassId =
        getIDAndDumpThrowingClassName(throwingClassName && *throwingClassName ? throwingClassName
                                                                              : const_cast<char*>("-"));
    const int throwingMethodId = getIDAndDumpThrowingMethodName(throwingMethodName);
    int msgId = -1, causeId = -1;
    if (exceptionMessage && *exceptionMessage) msgId = getIDAndDumpExceptionMessage(exceptionMessage);
    if (getexceptionCause && *getexceptionCause && vx::load_relaxed(e.exceptionCauseCaptureMode) == 1)
        causeId = getIDAndDumpExceptionCause(getexceptionCause);
    ++vxTD->exceptionCount;
    ++vxTD->seqNum;
    long long seq = 0;
    if (app->VXSys.enableExceptionInSeqBlob == 1) {
        appendExceptionRecordInSeqBlob(vxTD);
        seq = vxTD->seqNum;
    }
    const long long seconds = (starttime - vx::load_relaxed(app->Server.klvEpochDiffTime)) / 1000;
    /* A usual stack fits on the host thread's stack; only a long one takes
     * the record's full 64 KiB from the heap. */
    constexpr size_t kSmall = 8192;
    constexpr size_t kFull = 65536;
    const size_t need = 160 + (stackTraceArr ? strlen(stackTraceArr) : 0);
    char small[kSmall];
    char* buf = small;
    size_t cap = kSmall;
    std::unique_ptr<char[]> big;
    if (need >= kSmall) {
        big.reset(new (std::nothrow) char[kFull]);
        if (big) {
            buf = big.get();
            cap = kFull;
        }
    }
    const size_t len = vx::format_record38(buf, cap, vxTD, seconds, methodId, seq, classId, throwingClassId,
                                           throwingMethodId, exceptionLineNum, msgId, causeId, stackTraceArr);
    dumpData(buf, static_cast<int>(len));
}

extern "C" void getstacktracearray(VXPerThreadData_t* vxTD, char* stacktracearray, char*, char* className,
                                   char* throwingClassName, char* message, char* throwingmethodName,
                                   int lineNumber, char* ExceptionCause) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    const VXException_t& e = app->vxException;
    if (!vxTD || !stacktracearray) {
        VX_TRACE(vx::load_relaxed(e.exceptionCaptureTraceLevel), 1, "EXCEPTION", "Either vxTD or StacktraceArray is NULL");
        return;
    }
    /* The thread's copy is overwritten when the new text fits in it: a
     * host repeating one exception makes no allocation. */
    const size_t len = strlen(stacktracearray);
    if (vxTD->exceptionStackTrace && strlen(vxTD->exceptionStackTrace) >= len) {
        memcpy(vxTD->exceptionStackTrace, stacktracearray, len + 1);
    } else if (char* copy = strdup(stacktracearray)) {
        free(vxTD->exceptionStackTrace);
        vxTD->exceptionStackTrace = copy;
    }
    if (!ExceptionCause) ExceptionCause = const_cast<char*>("NULL");
    methodPropProperties* mPP = vx::find_throwing_method(vxTD, throwingClassName, throwingmethodName);
    const long long start = my_gettimeofday();
    if (app->VXSys.proxyMode) {
        /* STAND-IN(proxy-forwarding): ExceptionDataEncode(flowpathInstance,
         * start, class, message, throwing class and method, cause, line,
         * stack, mPP != null) goes to the proxy here. */
        return;
    }
    if (!mPP) {
        VX_TRACE(vx::load_relaxed(e.exceptionCaptureTraceLevel), 1, "EXCEPTION", "[%s] is not an instrumented method",
                 throwingmethodName ? throwingmethodName : "");
        return;
    }
    handleExceptionParameters(vxTD, mPP, start, className, message, throwingClassName, throwingmethodName,
                              ExceptionCause, lineNumber, vxTD->exceptionStackTrace);
}

#define VX_EXCEPTION_GETTER(name, expr)         \
    extern "C" int name(void) VX_NOEXCEPT       \
    {                                           \
        VXProxyInstance_t* app = vx_app();      \
        return app ? (expr) : 0;                \
    }
VX_EXCEPTION_GETTER(getExceptionCaptureMode, vx::load_relaxed(app->vxException.exceptionCaptureMode))
VX_EXCEPTION_GETTER(getExceptionCauseCaptureMode, vx::load_relaxed(app->vxException.exceptionCauseCaptureMode))
VX_EXCEPTION_GETTER(getStackTraceCaptureMode, vx::load_relaxed(app->vxException.stackTraceCaptureMode))
VX_EXCEPTION_GETTER(getExceptionType, vx::load_relaxed(app->vxException.exceptionType))
VX_EXCEPTION_GETTER(getStackTraceMaxDepth, vx::load_relaxed(app->vxException.stackTraceMaxDepth))
VX_EXCEPTION_GETTER(getExceptionCaptureTraceLevel, vx::load_relaxed(app->vxException.exceptionCaptureTraceLevel))
VX_EXCEPTION_GETTER(checkIfFilteringIsEnabled, vx::load_relaxed(app->vxException.isFilteringEnabled))
#undef VX_EXCEPTION_GETTER
