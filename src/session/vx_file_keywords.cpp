#include "session/vx_file_keywords.h"

#include <apr_time.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_instance.h"
#include "bt/vx_bt_rule_file.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_backend_naming.h"
#include "flowpath/vx_method_profile.h"
#include "flowpath/vx_method_table.h"
#include "http/vx_header_ids.h"
#include "link/vx_socket.h"
#include "session/vx_control_dispatch.h"
#include "session/vx_keywords.h"

namespace {

constexpr char kFileHeader[] = "vx_control_rep:action=file;keyword=";
constexpr char kFileFailed[] = "vx_control_rep:action=Failed";
constexpr char kProfileHeader[] = "vx_control_rep:action=instrumentation_profile";
constexpr char kProfileFailed[] = "vx_control_rep:action=FailedInstrumentationProfile";
constexpr char kDefaultCriticalFiles[] = "VXEntryPointsFile\nBTRuleConfig";
constexpr int kLineSize = 1024;
constexpr int kProfileRetrySeconds = 5;
constexpr int kProxyProfileRetrySeconds = 2;

VXProxyInstance_t* app() { return vx_app(); }

void clear_slot(keywordInfo& slot)
{
    free(slot.content);
    slot.content = nullptr;
    slot.size = slot.lmd = 0;
}

/* Reading the reply of one fetch: a line at a time, with what follows the
 * line kept for the body. The whole fetch ends after TimeOut, so a collector
 * that talks of other things cannot hold the control thread. Each read waits
 * at most TimeOut; the connection's own time-out is back once the fetch
 * ends. */
class FetchReader {
public:
    FetchReader() : skt_(app()->controlLink.control.skt), deadline_(apr_time_now() + app()->TimeOut)
    {
        if (!skt_) return;
        apr_socket_timeout_get(skt_, &own_timeout_);
        apr_socket_timeout_set(skt_, app()->TimeOut);
    }
    ~FetchReader()
    {
        give_back();
        if (skt_) apr_socket_timeout_set(skt_, own_timeout_);
    }

    /* vxlb_read_line's codes; -3 also once the fetch's time is over. A
     * connection that broke is marked for closing: the start that asked for
     * the file then ends without an answer. */
    int line(char* buf)
    {
        buf[0] = '\0';
        if (apr_time_now() >= deadline_) return -3;
        const int r =
            vxlb_read_line(app()->controlLink.control.skt, buf, kLineSize, carry_, &carry_len_, err_, sizeof err_);
        if (r == -2 || r == -4) {
            VX_ERROR("CONTROL_THREAD", "Control connection lost while reading a file: %s", err_);
            vx::store_relaxed(app()->VXSys.retryFlag, 1);
            vx::store_relaxed(app()->VXSys.closeCtrlConFlag, 1);
        }
        return r;
    }

    /* The body: what was read past the header, then the rest from the
     * socket. 0, or the failing read's code. */
    int body(char* out, long long size)
    {
        long long have = carry_len_ < size ? carry_len_ : size;
        memcpy(out, carry_, static_cast<size_t>(have));
        memmove(carry_, carry_ + have, static_cast<size_t>(carry_len_ - have));
        carry_len_ -= static_cast<int>(have);
        while (have < size) {
            long long want = size - have;
            if (want > (1 << 30)) want = 1 << 30;
            const int n = vxlb_read_n_bytes(app()->controlLink.control.skt, out + have, static_cast<int>(want) + 1,
                                            err_, sizeof err_);
            if (n <= 0) return n == 0 ? -2 : n;
            have += n;
        }
        return 0;
    }

private:
    /* Lines read past the file belong to the control stream. */
    void give_back()
    {
        controlSocketBuffer_t& b = app()->controlLink.ctrlBufInfo;
        if (carry_len_ <= 0 || !b.read_socket_buf) return;
        const int room = static_cast<int>(b.read_len) - b.writeOffset;
        const int n = carry_len_ < room ? carry_len_ : room;
        memcpy(b.read_socket_buf + b.writeOffset, carry_, static_cast<size_t>(n));
        b.writeOffset += n;
        b.readBytes += n;
        b.read_socket_buf[b.writeOffset] = '\0';
    }

    apr_socket_t* skt_;
    apr_interval_time_t own_timeout_ = 0;
    apr_time_t deadline_;
    char carry_[kLineSize];
    int carry_len_ = 0;
    char err_[256] = "";
};

/* The end of a fetch that timed out or got the wrong file. */
void give_up_on(const char* keyword, const char* got)
{
    if (isCriticalFile(const_cast<char*>(keyword))) {
        char text[2048];
        if (got)
            snprintf(text, sizeof text,
                     "Expecting response for '%s' but get message from VXC is '%s'. Closing control "
                     "connection.\n",
                     keyword, got);
        else
            snprintf(text, sizeof text,
                     "Expecting response for '%s' but Timeout has occured while reading data from "
                     "VXC. Closing control connection.\n",
                     keyword);
        controlConnectionSendText(text);
        vx::store_relaxed(app()->VXSys.closeCtrlConFlag, 1);
    } else if (got) {
        VX_ERROR("CONTROL_THREAD",
                 "Expecting response for '%s' but get message from VXC is '%s'. Not critical file "
                 "hence reseting all keyword's info.",
                 keyword, got);
    }
}

/* The header `header` answers for the keyword of `expected` (the header's
 * text up to the keyword). The proxy's file store puts the size right behind
 * the keyword ("keyword=K%3Bsize%3D..."), other collectors a ";" first; a
 * longer keyword that merely begins with K is another file's reply. */
bool names_keyword(const char* header, const std::string& expected)
{
    if (strncmp(header, expected.c_str(), expected.size()) != 0) return false;
    const char* rest = header + expected.size();
    return *rest == '\0' || *rest == '\r' || *rest == ';' || strncmp(rest, "%3B", 3) == 0;
}

/* A file header in `line`: read its body. 1: done (result in
 * *out), 0: wrong file, look for the right one. */
int take_file(FetchReader& reader, char* line, const char* keyword, keywordInfo& slot, bool timed_out,
              char** out)
{
    *out = nullptr;
    char* lf = strchr(line, '\n');
    if (!lf) {
        appendStartInstrResp("Failed to get response of '%s' file base keyword", keyword);
        return 1;
    }
    *lf = '\0';
    const std::string expected = std::string(kFileHeader) + keyword;
    const char* header = strstr(line, kFileHeader);
    const bool wrong = !names_keyword(header, expected);
    if (wrong) {
        VX_ERROR("CONTROL_THREAD",
                 "Response from VXC: Didn't receive expected header message '%s'.Going to read data "
                 "upto size bytes.",
                 expected.c_str());
        appendStartInstrResp(
            "Didn't receive expected header message while reading response  from VXC for '%s' "
            "file based keyword.",
            keyword);
    }
    char name[vx::kFileNameSize];
    long long size = 0, lmd = 0;
    if (getFileSizeAndLmd(const_cast<char*>(header), name, &size, &lmd) != 0 || size < 1) {
        VX_ERROR("CONTROL_THREAD", "Size of file %lld is <= 0, returning", size);
        return 1;
    }
    clear_slot(slot);
    slot.size = size;
    slot.lmd = lmd;
    slot.content = static_cast<char*>(malloc(static_cast<size_t>(size) + 1));
    if (!slot.content) {
        clear_slot(slot);
        return 1;
    }
    if (reader.body(slot.content, size) != 0) {
        VX_ERROR("CONTROL_THREAD",
                 "Unable to receive response from VXC while reading content of file, for "
                 "timeout[%lld]",
                 static_cast<long long>(app()->TimeOut));
        clear_slot(slot);
        return 1;
    }
    slot.content[size] = '\0';
    if (!wrong) {
        *out = slot.content;
        return 1;
    }
    clear_slot(slot);
    if (!timed_out) return 0;
    give_up_on(keyword, header);
    return 1;
}

char* getFileFromVXC(char* keyword, int kwIdx)
{
    keywordInfo& slot = app()->kywdInfo[kwIdx];
    char request[kLineSize];
    snprintf(request, sizeof request, "vx_control_req:action=send_file;keyword=%s;\n", keyword);
    controlConnectionSendText(request);
    FetchReader reader;
    char line[kLineSize];
    bool timed_out = false;
    for (;;) {
        int r = reader.line(line);
        if (r == -2 || r == -4 || r == -5) return nullptr;
        if (r == -3) timed_out = true;
        if (strstr(line, kFileFailed)) {
            VX_ERROR("CONTROL_THREAD",
                     "Response from VXC: File Not Present at Time '%s'. Going to read again.", keyword);
            controlConnectionSendText(request);
            r = reader.line(line);
            if (r == -2 || r == -4 || r == -5) return nullptr;
            if (r == -3) timed_out = true;
        }
        if (strstr(line, kFileHeader)) {
            char* out;
            if (take_file(reader, line, keyword, slot, timed_out, &out)) return out;
            continue;
        }
        if (!timed_out) continue; /* another line: dropped */
        appendStartInstrResp("Timeout has occured while reading response from VXC for '%s' file "
                             "based keyword.",
                             keyword);
        give_up_on(keyword, nullptr);
        return slot.content;
    }
}

char* getInstProfileFile(char* keyword, int kwIdx)
{
    VXProxyInstance_t* a = app();
    keywordInfo& slot = a->kywdInfo[kwIdx];
    const char* name = slot.fileName;
    if (vx_agent_behind_proxy(a)) {
        const char* slash = strrchr(name, '/');
        if (slash) name = slash + 1;
    }
    char request[vx::kFileNameSize + 256];
    snprintf(request, sizeof request,
             "vx_control_req:action=send_instrumentation_profile;status=%s;instrProfile=%s\n",
             a->Server.statusValue, name);
    controlConnectionSendText(request);
    const int pause = vx_in_proxy_process() ? kProxyProfileRetrySeconds : kProfileRetrySeconds;
    FetchReader reader;
    char line[kLineSize];
    bool failed_once = false;
    for (;;) {
        const int r = reader.line(line);
        if (r == -2) return nullptr;
        if (strstr(line, kProfileHeader) && !strstr(line, kProfileFailed)) {
            const long long size = slot.size;
            free(slot.content);
            slot.content = static_cast<char*>(malloc(static_cast<size_t>(size) + 1));
            if (!slot.content || size < 1 || reader.body(slot.content, size) != 0) {
                VX_ERROR("CONTROL_THREAD", "Unable to receive response from VX Server, for timeout[%lld]",
                         static_cast<long long>(a->TimeOut));
                clear_slot(slot);
                return nullptr;
            }
            slot.content[size] = '\0';
            return slot.content;
        }
        if (failed_once) {
            VX_ERROR("CONTROL_THREAD", "received error second time folr instrprofile hence returning ");
            return nullptr;
        }
        if (strstr(line, kProfileFailed)) {
            apr_sleep(apr_time_from_sec(pause));
            controlConnectionSendText(request);
            failed_once = true;
            continue;
        }
        if (r == -3) {
            appendStartInstrResp("Timeout get while reading response of '%s' file base keyword", keyword);
            clear_slot(slot);
            return nullptr;
        }
        apr_sleep(apr_time_from_sec(pause));
    }
}

bool is_go_agent() { return app()->VXBCISetting.agentIsGo; }

}  // namespace

extern "C" void appendStartInstrResp(const char* format, ...)
{
    Server_t& srv = app()->Server;
    char text[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    VX_ERROR("CONTROL_THREAD", "%s", text);
    const size_t used = strlen(srv.startInstrRespBuffer);
    snprintf(srv.startInstrRespBuffer + used, sizeof srv.startInstrRespBuffer - used, "%s%s",
             used ? " " : "", text);
    srv.startInstrRespBufferCnt = static_cast<int>(strlen(srv.startInstrRespBuffer));
}

extern "C" int getFileSizeAndLmd(char* line, char* name, long long* size, long long* lmd)
{
    if (!line) return -1;
    const char* mark = strstr(line, "%3B");
    if (!mark) return -1;
    const char* s = strstr(mark, "size%3D");
    const char* l = strstr(mark, "lmd%3D");
    if (!s || !l) return -1;
    if (name) {
        size_t n = static_cast<size_t>(mark - line);
        if (n >= vx::kFileNameSize) n = vx::kFileNameSize - 1;
        memcpy(name, line, n);
        name[n] = '\0';
    }
    long long bytes = 0;
    if (!vx::number_in("file size", s + 7, 0, vx::kFileSizeMax, &bytes)) return -1;
    *size = bytes;
    *lmd = strtoll(l + 6, nullptr, 10);
    return 0;
}

extern "C" char* get_file_from_VXC_wrapper(char* keyword, int kwIdx)
{
    /* STAND-IN(websocket): only the TCP fetch exists. */
    if (app()->lws_active == 1) return nullptr;
    return getFileFromVXC(keyword, kwIdx);
}

extern "C" char* get_instr_profile_wrapper(char* keyword, int kwIdx)
{
    if (app()->lws_active == 1) return nullptr; /* STAND-IN(websocket) */
    return getInstProfileFile(keyword, kwIdx);
}

extern "C" void handleFileBasedKeyword(char* line, char* keyword, int kwIdx)
{
    VXProxyInstance_t* a = app();
    if (kwIdx < 0 || kwIdx >= vx::kFileKeywordSlots) return;
    if (strcasecmp(line, "NA") == 0) {
        VX_TRACE(a->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Found =NA for keyword '%s', returning ",
                 keyword);
        if (kwIdx == kw::vxMethodMonFile) {
            vx::VXLockGuard guard(a->methodTable.methodEntryLock);
            resetmethodHashMapNode(a->methodTable.methodHashMapNode, 2);
        }
        return;
    }
    char name[vx::kFileNameSize];
    long long size = 0, lmd = 0;
    if (getFileSizeAndLmd(line, name, &size, &lmd) != 0) {
        appendStartInstrResp("Value of '%s' file based keyword is not in proper format", keyword);
        return;
    }
    keywordInfo& slot = a->kywdInfo[kwIdx];
    if (size <= 0) return;
    char* text = get_file_from_VXC_wrapper(keyword, kwIdx);
    if (text && *text) {
        vx::copy_text(slot.fileName, sizeof slot.fileName, name);
        useFileBasedKeyword(text, keyword, kwIdx);
    } else {
        VX_ERROR("CONTROL_THREAD", "Content of file is not present");
    }
}

extern "C" void useFileBasedKeyword(char* text, char* keyword, int kwIdx)
{
    VXProxyInstance_t* a = app();
    if (kwIdx == kw::instrProfile) {
        const char* base = strrchr(a->kywdInfo[kwIdx].fileName, '/');
        dumpDataInFile(const_cast<char*>(base ? base + 1 : a->kywdInfo[kwIdx].fileName), text);
    } else {
        dumpDataInFile(keyword, text);
    }
    switch (kwIdx) {
        case kw::BTRuleConfig:
            vxbt_read_rule_file(text);
            break;
        case kw::BTTConfig:
            vxbt_read_threshold_file(text);
            break;
        case kw::BTErrorRules:
            parseBtError(text);
            break;
        case kw::VXEntryPointsFile:
            if (is_go_agent()) dumpFileforGoAgent(keyword, text);
            parseEntryFile(text);
            a->isModifiedHashmap = 1;
            break;
        case kw::instrProfile:
            setMethodHashMapNode(text);
            if (is_go_agent()) dumpFileforGoAgent(keyword, text);
            a->isModifiedHashmap = 1;
            break;
        case kw::vxCriticalFileList:
            setvxCriticalFileList(text);
            break;
        case kw::vxBackendNamingRulesFile:
            parseBackendRuleFile(text);
            break;
        case kw::vxHttpHdrCaptureFileList:
            setHttpHashMapNode(text);
            break;
        case kw::vxMethodMonFile:
            if (is_go_agent()) dumpFileforGoAgent(keyword, text);
            parseMethodMonitor(text);
            a->isModifiedHashmap = 1;
            break;
        case kw::vxExceptionMonFile:
            parseExceptionMonFile(text);
            break;
        default:
            /* STAND-IN(filter-lists, dynamic-diagnostics): their parsers take the text
             * here once they exist; the file is kept in its slot. */
            VX_TRACE(a->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                     "File of keyword %s received (%zu bytes); no reader for it yet", keyword,
                     strlen(text));
            break;
    }
}

extern "C" void init_instrprof_table(int* flag)
{
    Server_t& srv = app()->Server;
    if (*flag) {
        *flag = 0;
        const int n = srv.numInstrProfile > 0 ? srv.numInstrProfile : 1;
        srv.InstrProfileTable = static_cast<instrProfile*>(calloc(static_cast<size_t>(n), sizeof(instrProfile)));
        srv.InstrProfIdx = 0;
        app()->Server.instrProfTableSize = srv.InstrProfileTable ? n : 0;
        return;
    }
    int& capacity = app()->Server.instrProfTableSize;
    if (srv.InstrProfIdx < capacity) return;
    auto* grown = static_cast<instrProfile*>(realloc(srv.InstrProfileTable, sizeof(instrProfile) * capacity * 2));
    if (!grown) return;
    memset(grown + capacity, 0, sizeof(instrProfile) * capacity);
    srv.InstrProfileTable = grown;
    capacity *= 2;
}

extern "C" void makeInstrProfTableFree(void)
{
    VXProxyInstance_t* a = app();
    Server_t& srv = a->Server;
    free(srv.InstrProfileTable);
    srv.InstrProfileTable = nullptr;
    free(srv.instrProfFileData);
    srv.instrProfFileData = nullptr;
    srv.numInstrProfile = srv.InstrProfIdx = srv.instrProfBytesWritten = 0;
    a->Server.instrProfTableSize = 0;
    a->init_flag = 1;
    a->InstrFileData_flag = 1;
}

extern "C" void setInstProfile(char* value, char* keyword, int kwIdx)
{
    VXProxyInstance_t* a = app();
    Server_t& srv = a->Server;
    if (kwIdx == kw::instrProfile) {
        if (strcmp(value, "-") == 0 || strcasecmp(value, "NA") == 0) {
            srv.noInstrumentProfileMode = 1;
            setMethodHashMapNode(nullptr);
            return;
        }
        srv.noInstrumentProfileMode = 0;
        if (a->isRunTime) {
            srv.isModifiedInstrProf = 1;
            if (srv.numInstrProfile == 0) srv.numInstrProfile = 1;
        }
        if (srv.numInstrProfile <= 0) return;
        init_instrprof_table(&a->init_flag);
        if (!srv.InstrProfileTable) return;
        instrProfile& e = srv.InstrProfileTable[srv.InstrProfIdx];
        vx::copy_text(e.filepath, sizeof e.filepath, value);
        e.index = kwIdx;
    } else {
        if (srv.numInstrProfile <= 0 || srv.noInstrumentProfileMode || !srv.InstrProfileTable) return;
        instrProfile& e = srv.InstrProfileTable[srv.InstrProfIdx];
        long long n = 0;
        if (kwIdx == kw::lmd) e.lmd = strtoll(value, nullptr, 10);
        if (kwIdx == kw::size && vx::number_in(keyword, value, 0, vx::kFileSizeMax, &n))
            e.size = static_cast<int>(n);
    }
    instrProfile& e = srv.InstrProfileTable[srv.InstrProfIdx];
    if (e.filepath[0] && e.lmd && e.size) {
        handleInstrProfileKeyword(&e, keyword, kw::instrProfile);
        ++srv.InstrProfIdx;
    }
}

extern "C" void handleInstrProfileKeyword(instrProfile* profile, char* keyword, int kwIdx)
{
    VXProxyInstance_t* a = app();
    Server_t& srv = a->Server;
    if (srv.isModifiedInstrProf) a->InstrFileData_flag = 1;
    keywordInfo& slot = a->kywdInfo[kwIdx];
    vx::copy_text(slot.fileName, sizeof slot.fileName, profile->filepath);
    slot.lmd = profile->lmd;
    slot.size = profile->size;
    const size_t need = static_cast<size_t>(profile->size) + 1;
    if (a->InstrFileData_flag && srv.InstrProfIdx == 0) {
        free(srv.instrProfFileData);
        srv.instrProfFileData = static_cast<char*>(calloc(1, need));
        srv.instrProfBytesWritten = 0;
        a->InstrFileData_flag = 0;
    } else if (vx_in_proxy_process()) {
        free(srv.instrProfFileData);
        srv.instrProfFileData = static_cast<char*>(calloc(1, need));
        srv.instrProfBytesWritten = 0;
    } else {
        const size_t used = static_cast<size_t>(srv.instrProfBytesWritten);
        if (used + need > static_cast<size_t>(vx::kInstrProfileBytesMax)) {
            VX_ERROR("CONTROL_THREAD",
                     "Profile '%s' would take the session's profiles past %lld bytes; skipped",
                     profile->filepath, vx::kInstrProfileBytesMax);
            return;
        }
        char* grown = static_cast<char*>(realloc(srv.instrProfFileData, used + need));
        if (!grown) return;
        memset(grown + used, 0, need);
        srv.instrProfFileData = grown;
    }
    if (!srv.instrProfFileData) return;
    const bool last = srv.InstrProfIdx + 1 >= srv.numInstrProfile;
    char* text = get_instr_profile_wrapper(keyword, kwIdx);
    if (!text) {
        VX_ERROR("CONTROL_THREAD",
                 "Content of file is not present or all instrumentation file is not been parsed yet");
        if (last) setMethodHashMapNode(nullptr);
        return;
    }
    vx::copy_text(srv.instrProfFileData + srv.instrProfBytesWritten, need, text);
    if (vx_in_proxy_process()) {
        useFileBasedKeyword(srv.instrProfFileData, keyword, kwIdx);
        return;
    }
    srv.instrProfBytesWritten = static_cast<int>(strlen(srv.instrProfFileData));
    if (last) useFileBasedKeyword(srv.instrProfFileData, keyword, kwIdx);
}

extern "C" int isCriticalFile(char* keyword)
{
    const Server_t& srv = app()->Server;
    for (int i = 0; i < srv.numcriticalFile; ++i)
        if (srv.criticalFileList[i] && strcmp(srv.criticalFileList[i], keyword) == 0) return 1;
    return 0;
}

extern "C" void setvxCriticalFileList(char* text)
{
    Server_t& srv = app()->Server;
    for (int i = 0; i < srv.numcriticalFile; ++i) {
        free(srv.criticalFileList[i]);
        srv.criticalFileList[i] = nullptr;
    }
    srv.numcriticalFile = 0;
    std::string copy = text ? text : "";
    char* fields[kCriticalFileCount];
    const int n = vxlb_get_tokens_with_multi_delimiter(copy.data(), fields, const_cast<char*>("\r\n"),
                                                       kCriticalFileCount);
    for (int i = 0; i < n; ++i) srv.criticalFileList[srv.numcriticalFile++] = strdup(fields[i]);
}

extern "C" void setDefaultCriticalFile(void) { setvxCriticalFileList(const_cast<char*>(kDefaultCriticalFiles)); }

extern "C" void parseBtError(char* text)
{
    VXProxyInstance_t* a = app();
    std::string copy = text ? text : "";
    char* lines[4096];
    const int n = vxlb_get_tokens_with_multi_delimiter(copy.data(), lines, const_cast<char*>("\r\n"), 4096);
    for (int i = 0; i < n; ++i) {
        std::string line = lines[i];
        char* f[8];
        if (tokenize(line.data(), f, const_cast<char*>("|"), 7) != 6) {
            VX_ERROR("CONTROL_THREAD", "Content '%s' is not in proper format.", lines[i]);
            return;
        }
        /* Fields 3 and 4 bound the range; 2 and 5 are the collector's. */
        const int lower = atoi(f[3]);
        const int upper = atoi(f[4]);
        if (lower < 0 || upper > 599) {
            VX_ERROR("CONTROL_THREAD", "out of range, Range should be in between 0-599");
            return;
        }
        if (strcmp(f[0], "0") != 0) continue;
        const char mark = strcmp(f[1], "1") == 0 ? 'F' : 'T';
        for (int code = lower; code <= upper; ++code) a->VXBCISetting.btErrorArray[code] = mark;
    }
}

extern "C" void dumpDataInFile(char* name, char* text)
{
    /* Only a proxy server keeps copies, under its home's ".cache". */
    if (!vx_in_proxy_process() || !VXProxy.vxHomePath || !name || !text) return;
    std::string dir = std::string(VXProxy.vxHomePath) + "/.cache/" +
                      (app()->agentName ? app()->agentName : "default") + "/";
    std::string path;
    for (size_t i = 1; i <= dir.size(); ++i)
        if (i == dir.size() || dir[i] == '/') mkdir(dir.substr(0, i).c_str(), 0777);
    path = dir + name;
    if (FILE* fp = fopen(path.c_str(), "wb+")) {
        fwrite(text, 1, strlen(text), fp);
        fclose(fp);
    }
}
