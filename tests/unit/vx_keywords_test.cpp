/*
 * The keyword table and the messages that apply it: the table's shape, which
 * messages apply fields and how a field is stored, the parsers, the session
 * defaults, and the helpers of file keywords.
 */
#include "session/vx_keywords.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "agent/vx_feature_settings.h"
#include "agent/vx_instance.h"
#include "core/vx_text.h"
#include "http/vx_trace_context.h"
#include "session/vx_file_keywords.h"
#include "session/vx_keyword_parsers.h"
#include "vx_test_support.h"

namespace {

using I = VXProxyInstance_t;
using vx_test::S;
std::string modify(const std::string& fields)
{
    return "vx_control_req:action=modify;" + fields;
}

/* The shared agent with no critical files, no profile table and an idle
 * control connection; every structure a keyword reaches gets its values back
 * afterwards. Heap members the test made are freed, the saved ones kept. */
class Keywords : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(!app_->controlLink.control.skt);
        Server_t& s = app_->Server;
        memset(s.criticalFileList, 0, sizeof s.criticalFileList);
        s.InstrProfileTable = nullptr;
        s.instrProfFileData = nullptr;
        s.numcriticalFile = s.instrProfTableSize = s.InstrProfIdx = s.numInstrProfile = 0;
        s.controlCommunicationBusyFlag = 0;
        app_->VXSys.closeCtrlConFlag = 0;
        app_->isRunTime = 0;
    }

    void TearDown() override
    {
        Server_t& s = app_->Server;
        for (int i = 0; i < s.numcriticalFile; ++i) free(s.criticalFileList[i]);
        free(s.InstrProfileTable);
        free(s.instrProfFileData);
    }

    void apply(std::string msg) { findStatusFromClientMsg(msg.data()); }

    /* The structure a setter fills, and its size. */
    std::pair<char*, size_t> base_of(KeywordSetter setter)
    {
        I& a = *app_;
        const std::pair<KeywordSetter, std::pair<void*, size_t>> bases[] = {
            {fill_server_info, {&a.Server, sizeof a.Server}},
            {fill_VXSys_info, {&a.VXSys, sizeof a.VXSys}},
            {fill_VXBCISetting_info, {&a.VXBCISetting, sizeof a.VXBCISetting}},
            {fill_VXAutoInstrumentation_info,
             {&a.vxAutoInstrumentation, sizeof a.vxAutoInstrumentation}},
            {fill_VXFlowpathGenerator_info, {&a.VXFlowpathGenerator, sizeof a.VXFlowpathGenerator}},
            {fill_VXInterfaceProcessor_info,
             {&a.VXInterfaceProcessor, sizeof a.VXInterfaceProcessor}},
            {fill_vxAppLogStruct_info, {&vxAppLogStruct, sizeof vxAppLogStruct}},
        };
        for (const auto& [s, b] : bases)
            if (s == setter) return {static_cast<char*>(b.first), b.second};
        return {nullptr, 0};
    }

    I* app_ = vx_test::agent();

private:
    vx_test::Restore keep_{app_->Server,
                           app_->VXSys,
                           app_->VXBCISetting,
                           app_->vxAutoInstrumentation,
                           app_->VXFlowpathGenerator,
                           app_->VXInterfaceProcessor,
                           app_->monitorSettings,
                           app_->httpSettings,
                           app_->VXBackendMonitor,
                           app_->VXBTMonitor,
                           app_->init_flag,
                           app_->InstrFileData_flag,
                           app_->isRunTime,
                           app_->isModifiedHashmap,
                           app_->config.max_bt_count,
                           app_->kywdInfo[kw::BTTConfig],
                           vxAppLogStruct,
                           arrPropagationHeaders,
                           arSpanType};
};

using KeywordTable = Keywords;
using KeywordMessage = Keywords;
using KeywordParsers = Keywords;
using KeywordDefaults = Keywords;
using KeywordFiles = Keywords;

TEST_F(KeywordTable, EveryRowHasOneWayToStoreAndAUniqueNameFoundAtItsIndex)
{
    std::set<std::string> names;
    for (int i = 0; i < _MAX_KW; ++i) {
        const keywordsInfo& row = keywordsMap[i];
        SCOPED_TRACE(row.name);
        EXPECT_TRUE(row.name[0] && names.insert(row.name).second);
        EXPECT_EQ(NameToIndex(S(row.name)), i);
        EXPECT_NE(row.parser != nullptr, row.setter && row.fill_data);
        if (row.parser) {
            EXPECT_TRUE(row.offset == -1 && row.length == 0 && !row.setter && !row.fill_data);
        }
        if (row.parser == setFileBasedKeywd) {
            EXPECT_LT(i, kFileKeywordSlots);
        }
    }
    EXPECT_EQ(NameToIndex(S("Status")), -1); /* case-sensitive */
    EXPECT_EQ(NameToIndex(nullptr), -1);
}

TEST_F(KeywordTable, EveryDirectRowWritesOnlyWithinItsOwnMember)
{
    for (int i = 0; i < _MAX_KW; ++i) {
        const keywordsInfo& row = keywordsMap[i];
        if (!row.setter) continue;
        SCOPED_TRACE(row.name);
        const auto [base, size] = base_of(row.setter);
        ASSERT_NE(base, nullptr);
        const size_t begin = static_cast<size_t>(row.offset),
                     end = begin + static_cast<size_t>(row.length);
        ASSERT_TRUE(row.offset >= 0 && row.length > 0 && end <= size);
        if (row.fill_data == fill_int_data) {
            EXPECT_TRUE(row.length == 1 || row.length == 2 || row.length == 4);
        } else if (row.fill_data == fill_long_long_data || row.fill_data == fill_double_data) {
            EXPECT_EQ(row.length, 8);
        }
        memset(base + begin, 0, end - begin);
        const std::vector<char> before(base, base + size);
        /* -1, or for a row of bounded numbers the top of its range. */
        const std::string value = row.max == LLONG_MAX ? "-1" : std::to_string(row.max);
        row.setter(i, S(value.c_str()));
        row.setter(i, nullptr); /* nothing to store */
        bool stored = false;
        for (size_t b = 0; b < size; ++b) {
            if (b >= begin && b < end) {
                stored |= base[b] != 0;
            } else {
                ASSERT_EQ(base[b], before[b]) << "byte " << b << " outside the member";
            }
        }
        EXPECT_TRUE(stored);
    }
}

TEST_F(KeywordMessage, ModifyAndAnIdleStartApplyFieldsWhileStopAndABusyStartOnlyTakeStatus)
{
    VXBCISetting_t& bci = app_->VXBCISetting;
    Server_t& srv = app_->Server;
    apply("vx_control_req:action=start_instrumentation;status=RUNNING;appID=21");
    EXPECT_EQ(bci.appID, 21);
    EXPECT_STREQ(srv.statusValue, "RUNNING");
    srv.controlCommunicationBusyFlag = 1;
    apply("vx_control_req:action=start_instrumentation;status=BUSY;appID=22");
    EXPECT_EQ(bci.appID, 21);
    EXPECT_STREQ(srv.statusValue, "BUSY");
    apply("vx_control_req:action=stop_instrumentation;status=STOPPED;appID=23");
    EXPECT_EQ(bci.appID, 21);
    EXPECT_STREQ(srv.statusValue, "STOPPED");
    apply(modify("appID=24")); /* whatever the data thread does */
    EXPECT_EQ(bci.appID, 24);

    std::string msg = modify("status=" + std::string(100, 's') + ";tierID=5");
    findStatusFromClientMsg(msg.data());
    EXPECT_EQ(std::string(srv.statusValue), std::string(63, 's'));
    EXPECT_EQ(bci.tierID, 5);
    EXPECT_STREQ(msg.c_str(), "vx_control_req:action=modify"); /* cut in place */
}

TEST_F(KeywordMessage, NumbersAndTextsTakeTheWidthOfTheirMembers)
{
    VXSys_t& sys = app_->VXSys;
    Server_t& srv = app_->Server;
    apply(modify(
        "captureMethodForAllFP=70000;vxEnableDebugMode=1;fileBasedKeywordMode=1;InstrTraceLevel=4;"
        "fpVersionID=123456789012;TimeStampDiff=-5000000000;"
        "autoInstrPct=12.5;autoDeInstrPct=abc"));
    EXPECT_EQ(sys.captureMethodForAllFP, 70000 & 0xFFFF);
    EXPECT_EQ(sys.dumpDebugData, 1);
    EXPECT_EQ(app_->VXBCISetting.fileBasedKeywordMode, '1');
    EXPECT_EQ(srv.setInstrumentTraceLevel, '4');
    EXPECT_STREQ(srv.fpgVID, "123456789");
    EXPECT_EQ(srv.diffTimeFromVXC, -5000000000LL);
    EXPECT_DOUBLE_EQ(app_->vxAutoInstrumentation.autoInstrPct, 12.5);
    EXPECT_DOUBLE_EQ(app_->vxAutoInstrumentation.autoUnInstrPct, 0.0);
    apply(modify("fpVersionID=2.1"));
    EXPECT_STREQ(srv.fpgVID, "2.1");
}

TEST_F(KeywordMessage, UnknownKeysAreSkippedAndAFieldWithoutEqualsOrAClosingConnectionEndsTheParse)
{
    VXBCISetting_t& bci = app_->VXBCISetting;
    VXSys_t& sys = app_->VXSys;
    bci.tierID = 42;
    sys.vxHotspotThreadLimit = 77;
    apply(
        modify("foo=1;appID=11;autoInstrSampleInterval=5;autoInstrSampleThreshold=6;"
               "tierID=;vxHelperDepth=3;broken;vxHotspotThreadLimit=9"));
    EXPECT_EQ(bci.appID, 11);
    /* Both keys fill one member: the later field wins. */
    EXPECT_EQ(app_->vxAutoInstrumentation.autoInstrSampleThreshold, 6);
    EXPECT_EQ(bci.tierID, 0);
    EXPECT_EQ(sys.vxHelperDepth, 3);
    EXPECT_EQ(sys.vxHotspotThreadLimit, 77);
    apply(modify("autoInstrSampleThreshold=8;autoInstrSampleInterval=4"));
    EXPECT_EQ(app_->vxAutoInstrumentation.autoInstrSampleThreshold, 4);

    vx::copy_text(app_->Server.statusValue, sizeof app_->Server.statusValue, "RUNNING");
    sys.closeCtrlConFlag = 1; /* the parse ends at the head */
    apply(modify("status=CLOSING;appID=12"));
    EXPECT_STREQ(app_->Server.statusValue, "RUNNING");
    EXPECT_EQ(bci.appID, 11);
}

TEST_F(KeywordParsers, TestRunTimeBaseIntervalAndCaps)
{
    Server_t& srv = app_->Server;
    srv.TestRunIDValue = 7;
    srv.doNotDumpMetaData = 0;
    apply(modify("testIdx=8;klvEpochDiff=10"));
    EXPECT_EQ(srv.TestRunIDValue, 8);
    EXPECT_EQ(srv.doNotDumpMetaData, 1);
    EXPECT_EQ(srv.klvEpochDiffTime, 10000);
    EXPECT_EQ(srv.originalKlvEpochDiffTime, 10000);
    EXPECT_EQ(srv.changeOriginalTime, 1);
    apply(modify("testIdx=8;klvEpochDiff=0"));
    EXPECT_EQ(srv.doNotDumpMetaData, 0);
    EXPECT_EQ(srv.klvEpochDiffTime, 0);
    EXPECT_EQ(srv.changeOriginalTime, 0);

    VXMonitorSettings_t& m = app_->monitorSettings;
    struct {
        const char* value;
        long long ms;
    } intervals[] = {{"30", 30000}, {"1000", 1000}, {"30000", 30000}};
    for (const auto& c : intervals) { /* below 1000: seconds */
        m.vxMonitorInterval = 1;
        apply(modify(std::string("vxMonitorInterval=") + c.value));
        EXPECT_EQ(m.vxMonitorInterval, c.ms) << c.value;
        EXPECT_EQ(m.vxMonitorIntervalInSecs, c.ms / 1000) << c.value;
    }
    app_->VXBackendMonitor.maxIPCount = 32;
    app_->config.max_bt_count = 100;
    apply(modify("vxMonitorInterval=-5;maxIPCount=0;maxBTCount=0"));
    apply(modify("maxIPCount=-3;maxBTCount=-1"));
    EXPECT_EQ(m.vxMonitorInterval, 30000);
    EXPECT_EQ(app_->VXBackendMonitor.maxIPCount, 32);
    EXPECT_EQ(app_->config.max_bt_count, 100);
    apply(modify("maxIPCount=64;maxBTCount=250"));
    EXPECT_EQ(app_->VXBackendMonitor.maxIPCount, 64);
    EXPECT_EQ(app_->config.max_bt_count, 250);
}

TEST_F(KeywordParsers, CorrelationHeaderCpuTimeAndTraceContextSwitches)
{
    VXSys_t& sys = app_->VXSys;
    apply(modify("correlationIDHeader=X-Id"));
    EXPECT_STREQ(sys.correlationIdHeader, "X-Id=");
    EXPECT_EQ(sys.captureCorrelationEnabled, 1);
    apply(modify("correlationIDHeader=NA"));
    EXPECT_STREQ(sys.correlationIdHeader, "");
    EXPECT_EQ(sys.captureCorrelationEnabled, 0);
    apply(modify("correlationIDHeader=" + std::string(300, 'h')));
    const std::string header = sys.correlationIdHeader;
    EXPECT_EQ(header.size(), sizeof sys.correlationIdHeader - 1);
    EXPECT_EQ(header.back(), '=');

    struct {
        const char* value;
        int cpu, child;
    } cpu[] = {{"1%202", 1, 1}, {"3%201", 3, 1}, {"2%202", 2, 0}, {"1%200", 1, 0}, {"1", 1, 0}};
    for (const auto& c : cpu) {
        sys.captureChildFPCPUTime = static_cast<char>(1 - c.child);
        apply(modify(std::string("enableCpuTime=") + c.value));
        EXPECT_EQ(sys.enableCpuTime, c.cpu) << c.value;
        EXPECT_EQ(sys.captureChildFPCPUTime, c.child) << c.value;
    }

    apply(modify("enableOTELStandard=2%201%201%200%200%201%200%200%201"));
    EXPECT_EQ(sys.enableOTELStandard, 2);
    EXPECT_EQ(std::vector<int>(arrPropagationHeaders, arrPropagationHeaders + 3),
              (std::vector<int>{1, 0, 1}));
    EXPECT_EQ(std::vector<int>(arSpanType, arSpanType + 5), (std::vector<int>{0, 0, 1, 0, 1}));
    apply(modify("enableOTELStandard=1%201%201%201%201%201%201%201")); /* eight sub-values */
    EXPECT_EQ(sys.enableOTELStandard, 0);
    sys.enableOTELStandard = 1;
    apply(modify("enableOTELStandard=0%201%201%201%201%201%201%201%201"));
    EXPECT_EQ(sys.enableOTELStandard, 0);
}

TEST_F(KeywordDefaults, SessionStartResetsSessionKeywordsAndKeepsLastingOnes)
{
    VXSys_t& sys = app_->VXSys;
    Server_t& srv = app_->Server;
    apply(modify(
        "fpVersionID=9.9;enableForcedFPChain=0;bciInstrSessionPct=40;bciDataBufferMaxSize=65536;"
        "correlationIDHeader=X-Id;maxIPCount=5;klvEpochDiff=10;appID=33"));
    sys.dataConnState = 0;
    appendStartInstrResp("old warning");
    /* The sanitizer build reports a leak if the start drops this list. */
    setvxCriticalFileList(S("vxPoolFile\nBTTConfig"));
    vxlb_init_all_keywords();
    EXPECT_STREQ(srv.fpgVID, "1.0");
    EXPECT_EQ(sys.enableForcedFlowpathChainMode, 1);
    EXPECT_EQ(sys.bciInstrSessionPct, 0);
    EXPECT_EQ(sys.dataConnState, 1);
    EXPECT_EQ(sys.captureCorrelationEnabled, 0);
    EXPECT_EQ(app_->VXBackendMonitor.maxIPCount, 32);
    EXPECT_EQ(srv.originalKlvEpochDiffTime, 1388534400000LL);
    EXPECT_EQ(srv.startInstrRespBufferCnt, 0);
    EXPECT_EQ(srv.numcriticalFile, 2);
    EXPECT_TRUE(isCriticalFile(S("VXEntryPointsFile")) && isCriticalFile(S("BTRuleConfig")));
    EXPECT_FALSE(isCriticalFile(S("vxPoolFile")));
    EXPECT_EQ(sys.bciDataBufferMaxSize, 65536); /* outlives the session */
    EXPECT_EQ(app_->VXBCISetting.appID, 33);
}

TEST_F(KeywordDefaults, ModifyKeepsWhatItLeavesOutAndAnEmptyModifyChangesNothing)
{
    app_->isRunTime = 1;
    apply(modify("appID=1;tierID=2;fpVersionID=7.7;bciInstrSessionPct=40"));
    std::string msg = modify("appID=5");
    handleRunTimeChangeCase(msg.data());
    EXPECT_EQ(app_->VXBCISetting.appID, 5);
    EXPECT_EQ(app_->VXBCISetting.tierID, 2);
    EXPECT_STREQ(app_->Server.fpgVID, "7.7");
    EXPECT_EQ(app_->VXSys.bciInstrSessionPct, 40);
    EXPECT_EQ(app_->Server.isRuntimeApplied, 1);

    const std::vector<char> server(reinterpret_cast<char*>(&app_->Server),
                                   reinterpret_cast<char*>(&app_->Server + 1));
    const std::vector<char> sys(reinterpret_cast<char*>(&app_->VXSys),
                                reinterpret_cast<char*>(&app_->VXSys + 1));
    msg = "vx_control_req:action=modify;";
    handleRunTimeChangeCase(msg.data());
    EXPECT_EQ(memcmp(server.data(), &app_->Server, server.size()), 0);
    EXPECT_EQ(memcmp(sys.data(), &app_->VXSys, sys.size()), 0);
}

TEST_F(KeywordFiles, ValueCarriesNameSizeAndTimeAndAnyMissingMarkIsRefused)
{
    char name[vx::kFileNameSize];
    long long size = 0, lmd = 0;
    std::string v = "a/b.txt%3Bsize%3D12%3Blmd%3D34";
    ASSERT_EQ(getFileSizeAndLmd(v.data(), name, &size, &lmd), 0);
    EXPECT_STREQ(name, "a/b.txt");
    EXPECT_EQ(size, 12);
    EXPECT_EQ(lmd, 34);
    for (std::string bad :
         {"a/b.txt", "a/b.txt%3Bsize%3D12", "a/b.txt%3Blmd%3D34", "size%3D1lmd%3D2"})
        EXPECT_EQ(getFileSizeAndLmd(bad.data(), name, &size, &lmd), -1) << bad;
    v = std::string(3000, 'n') + "%3Bsize%3D1%3Blmd%3D2";
    ASSERT_EQ(getFileSizeAndLmd(v.data(), name, &size, &lmd), 0);
    EXPECT_EQ(strlen(name), sizeof name - 1);

    keywordInfo& slot = app_->kywdInfo[kw::BTTConfig]; /* no connection: a fetch gets nothing */
    vx::copy_text(slot.fileName, sizeof slot.fileName, "old");
    apply(
        modify("BTTConfig=na;BTErrorRules=junk;HTTPStatsCondCfg=x%3Bsize%3D0%3Blmd%3D1;"
               "BTTConfig=new%3Bsize%3D5%3Blmd%3D1"));
    EXPECT_STREQ(app_->Server.startInstrRespBuffer,
                 "Value of 'BTErrorRules' file based keyword is not in proper format");
    EXPECT_STREQ(slot.fileName, "old");
}

TEST_F(KeywordFiles, ErrorRulesMarkStatusCodesUntilAMalformedLineOrABoundOutOfRange)
{
    char* marks = app_->VXBCISetting.btErrorArray;
    const auto run = [&](std::string rules) {
        memset(marks, '.', vx::kStatusCodeCount);
        parseBtError(rules.data());
        return std::string(marks, vx::kStatusCodeCount);
    };
    std::string m =
        run("0|1|a|400|402|b\r\n0|0|a|500|501|b\n7|1|a|300|300|b\n0|1|a|599|599|b\n0|1|a|0|0|b\n"
            "bad|line\n0|1|a|200|200|b\n");
    EXPECT_EQ(m.substr(399, 5), ".FFF.");
    EXPECT_EQ(m.substr(499, 4), ".TT.");
    EXPECT_EQ(m[300], '.'); /* first field not "0" */
    EXPECT_EQ(m[599], 'F');
    EXPECT_EQ(m[0], 'F');
    EXPECT_EQ(m[200], '.'); /* behind the malformed line */
    m = run("0|1|a|100|101|b\n0|1|a|590|600|b\n0|1|a|102|102|b\n");
    EXPECT_EQ(m.substr(100, 3), "FF.");
    EXPECT_EQ(m[590], '.');
    const std::string untouched(vx::kStatusCodeCount, '.');
    EXPECT_EQ(run("0|1|a|-1|3|b\n0|1|a|4|4|b\n"), untouched);
    EXPECT_EQ(run("0|1|a|1|2|b|x\n"), untouched); /* seven fields */
}

TEST_F(KeywordFiles, CriticalListIsReplacedWholeAndHoldsAtMostItsCapacity)
{
    setDefaultCriticalFile();
    EXPECT_EQ(app_->Server.numcriticalFile, 2);
    EXPECT_TRUE(isCriticalFile(S("VXEntryPointsFile")) && isCriticalFile(S("BTRuleConfig")));
    EXPECT_FALSE(isCriticalFile(S("BTTConfig")) || isCriticalFile(S("btruleconfig")));
    setvxCriticalFileList(S("BTTConfig\r\nvxPoolFile\n"));
    EXPECT_EQ(app_->Server.numcriticalFile, 2);
    EXPECT_TRUE(isCriticalFile(S("BTTConfig")) && isCriticalFile(S("vxPoolFile")));
    EXPECT_FALSE(isCriticalFile(S("VXEntryPointsFile")));

    std::string many;
    for (int i = 0; i < kCriticalFileCount + 2; ++i) many += "file" + std::to_string(i) + "\n";
    setvxCriticalFileList(many.data());
    EXPECT_EQ(app_->Server.numcriticalFile, kCriticalFileCount);
    EXPECT_TRUE(isCriticalFile(S("file9")));
    EXPECT_FALSE(isCriticalFile(S("file10")));
}

TEST_F(KeywordFiles, StartAnswerWarningsAccumulateWithinTheBuffer)
{
    Server_t& srv = app_->Server;
    srv.startInstrRespBuffer[0] = '\0';
    srv.isTenRecordDump = 0x5A5A; /* the member behind the buffer and its count */
    appendStartInstrResp("first %d", 1);
    appendStartInstrResp("second");
    EXPECT_STREQ(srv.startInstrRespBuffer, "first 1 second");
    EXPECT_EQ(srv.startInstrRespBufferCnt, 14);
    const std::string big(700, 'x');
    for (const char* text : {big.c_str(), big.c_str(), "more"}) appendStartInstrResp("%s", text);
    EXPECT_EQ(strlen(srv.startInstrRespBuffer), sizeof srv.startInstrRespBuffer - 1);
    EXPECT_EQ(srv.startInstrRespBufferCnt, static_cast<int>(sizeof srv.startInstrRespBuffer - 1));
    EXPECT_EQ(std::string(srv.startInstrRespBuffer, 15), "first 1 second ");
    EXPECT_EQ(srv.isTenRecordDump, 0x5A5A);
}

TEST_F(KeywordFiles, ProfileTripleFillsOneEntryAndNoneModeIgnoresTheRest)
{
    Server_t& srv = app_->Server;
    app_->init_flag = 1;
    apply(modify(
        "numInstrProfile=2;instrProfile=prof/a.txt;lmd=77")); /* no size yet: nothing fetched */
    EXPECT_EQ(srv.noInstrumentProfileMode, 0);
    ASSERT_NE(srv.InstrProfileTable, nullptr);
    EXPECT_EQ(srv.instrProfTableSize, 2);
    const instrProfile& e = srv.InstrProfileTable[0];
    EXPECT_STREQ(e.filepath, "prof/a.txt");
    EXPECT_EQ(e.index, kw::instrProfile);
    EXPECT_EQ(e.lmd, 77);
    for (const char* none : {"NA", "-"}) {
        srv.noInstrumentProfileMode = 0;
        apply(modify(std::string("instrProfile=") + none + ";lmd=99;size=5"));
        EXPECT_EQ(srv.noInstrumentProfileMode, 1) << none;
        EXPECT_TRUE(e.lmd == 77 && e.size == 0 && srv.InstrProfIdx == 0) << none;
    }
}

}  // namespace
