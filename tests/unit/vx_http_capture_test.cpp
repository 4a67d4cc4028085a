/*
 * Header capture from both directions: the settings keywords, filtering by
 * mode and list, value encoding and length cuts, the block's byte and entry
 * limits, ids (record 6 once per name, values as ids) and the records 12
 * and 13 a flowpath leaves.
 */
#include "http/vx_http_capture.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "agent/vx_instance.h"
#include "flowpath/vx_per_thread_data.h"
#include "http/vx_header_ids.h"
#include "http/vx_http_capture_settings.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

const char kSep[] = "\x7f";

std::string block(const std::vector<std::string>& entries)
{
    std::string b;
    for (size_t i = 0; i < entries.size(); ++i) b += (i ? kSep : "") + entries[i];
    return b;
}

class HttpCapture : public testing::Test {
protected:
    void SetUp() override
    {
        agentType_ = app_->VXBCISetting.agentType;
        app_->VXSys.bciInstrSessionPct = 100;
        app_->VXSys.enableOTELStandard = 0;
        free_HttpHashMapNode();
        initHttpHashMapNode();
    }
    void TearDown() override
    {
        freeHdrNameList(&app_->httpSettings.vxHttpReqCaptureSettings);
        freeHdrNameList(&app_->httpSettings.vxHttpRespCaptureSettings);
        free(app_->httpSettings.vxHttpCapture.hdrListValue);
        app_->httpSettings.vxHttpCapture.hdrListValue = nullptr;
        app_->VXBCISetting.agentType = agentType_;
    }
    static void set(const char* keyword, const char* value)
    {
        std::string v = value;
        setHttpReqRespCaptureSettings(v.data(), S(keyword), 0);
    }
    /* One flowpath hands over `headers` for `type`; the records it left. */
    std::vector<std::string> capture(const std::string& headers, const char* type = "req", int status = -1)
    {
        absorb(sink_.lines());
        sink_.clear();
        auto* td = static_cast<VXPerThreadData_t*>(
            startFP(nullptr, S("/pay"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
        EXPECT_NE(td, nullptr);
        if (!td) return {};
        fpi_ = std::to_string(td->flowpathInstance);
        std::string b = headers;
        httpReqRespWrapper(td, b.data(), S(type), status);
        EXPECT_EQ(b, headers) << "the host's block is not changed";
        const std::vector<std::string> lines = sink_.lines();
        endFP(td, 200, nullptr, 0, 0, 0, nullptr);
        reset(td);
        absorb(lines);
        std::vector<std::string> out;
        for (const std::string& l : lines)
            if (l.rfind("6,", 0) == 0 || l.rfind("12,", 0) == 0 || l.rfind("13,", 0) == 0) out.push_back(l);
        return out;
    }
    /* Learns the ids of the record 6 lines "6,<name>,<id>\n". */
    void absorb(const std::vector<std::string>& lines)
    {
        for (const std::string& l : lines) {
            const size_t comma = l.rfind(',');
            if (l.rfind("6,", 0) == 0 && comma > 1) ids_[l.substr(2, comma - 2)] = l.substr(comma + 1, l.size() - comma - 2);
        }
    }
    /* A golden text with "{name}" for the id of a name or value. */
    std::string golden(std::string text)
    {
        std::vector<std::pair<std::string, std::string>> v(ids_.begin(), ids_.end());
        v.emplace_back("fpi", fpi_);
        return vx_test::fill(std::move(text), v);
    }
    static std::vector<std::string> of(const std::vector<std::string>& lines, const char* head)
    {
        std::vector<std::string> out;
        for (const std::string& l : lines)
            if (l.rfind(head, 0) == 0) out.push_back(l);
        return out;
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{app_->VXSys, app_->httpSettings.vxHttpReqCaptureSettings.captureLevel,
                           app_->httpSettings.vxHttpRespCaptureSettings.captureLevel};
    SessionScope session_;
    RecordSink sink_;
    char* agentType_ = nullptr;
    std::map<std::string, std::string> ids_;
    std::string fpi_;
};

TEST_F(HttpCapture, KeywordSetsLevelModeListAndLimitsAndRefusesOutOfRangeFields)
{
    struct Case {
        const char* keyword;
        const char* value;
        int level, mode, lengthMode, maxLength, names;
    };
    const char* req = "captureHTTPReqFullFp";
    const char* rep = "captureHTTPRespFullFp";
    const Case cases[] = {
        {req, "3%20all%201%20500", 3, 0, 1, 500, 15},
        {req, "3%20CONFIGURED", 3, 2, 0, 0, 15},
        {req, "3%20A,B,C%200%20-4", 3, 1, 0, 0, 3},  /* a negative maximum is refused */
        {req, "3%20a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p", 3, 1, 0, 0, 15}, /* a 16th name is cut */
        {req, "3%20ALL%202", 3, 0, 0, 0, 15},        /* requests take length mode 0 or 1 only */
        {rep, "2%20ALL%205", 2, 0, 5, 0, 15},        /* responses take any number */
        {req, "4%20CONFIGURED%201", 0, 0, 0, 0, 15}, /* refused level: nothing else read */
        {rep, "3%20CONFIGURED", 0, 0, 0, 0, 15},
        {req, "0%20CONFIGURED", 0, 0, 0, 0, 15},     /* off: the rest ignored */
        {req, "", 0, 0, 0, 0, 15},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.keyword) + "=" + c.value);
        VXHttpReqRespCaptureSettings& s = c.keyword == req ? app_->httpSettings.vxHttpReqCaptureSettings
                                                           : app_->httpSettings.vxHttpRespCaptureSettings;
        freeHdrNameList(&s);
        initVXHttpReqRespCaptureSettings(&s);
        set(c.keyword, c.value);
        EXPECT_EQ(s.captureLevel, c.level);
        EXPECT_EQ(s.hdrMode, c.mode);
        EXPECT_EQ(s.hdrValueLengthMode, c.lengthMode);
        EXPECT_EQ(s.hdrValueMaxLength, c.maxLength);
        EXPECT_EQ(s.hdrNameListCount, c.names);
        EXPECT_EQ(c.keyword == req ? getHttpReqCaptureLevel() : getHttpRespCaptureLevel(), c.level);
    }
    EXPECT_STREQ(app_->httpSettings.vxHttpReqCaptureSettings.hdrNameList[0], nullptr);
}

TEST_F(HttpCapture, RequestTextFollowsModeListEncodingAndLengthCut)
{
    const std::string x2000(2000, 'x');
    struct Case {
        const char* setting;
        std::string headers;
        std::string text; /* golden, "{name}" for ids; "-" for no record 12 */
    };
    const Case cases[] = {
        {"3%20ALL", block({"Host$a.b", "Accept$*/*"}), "{Host}:<a%2Eb>|{Accept}:<*/*>"},
        {"3%20Accept,X-Id", block({"Host$h", "Accept$*/*", "X-Id$7"}), "|{Accept}:<*/*>|{X-Id}:<7>"},
        {"3%20accept", block({"Accept$*/*"}), ""}, /* the list is matched with case */
        {"3%20CONFIGURED", block({"Host$h"}), ""},
        {"3%20ALL", block({"M$a|b,c:d\ne\r'\"&\\^"}), "{M}:<a%7Cb%2Cc%3Ad%Ae%D%27%22%26%5C%5E>"},
        {"3%20ALL", block({"junk", "Host$h$i"}), "|{Host}:<h$i>"}, /* no "$": skipped; cut at the first */
        {"3%20ALL", block({"Bin$\x01\xfe\xff ok"}), "{Bin}:<\x01\xfe\xff ok>"},
        {"3%20ALL%201", block({"Long$" + x2000}), "{Long}:<" + std::string(1023, 'x') + ">"},
        {"2%20ALL", block({"Host$h"}), "-"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.setting) + " " + c.headers.substr(0, 40));
        set("captureHTTPReqFullFp", c.setting);
        const auto recs = capture(c.headers);
        const auto r12 = of(recs, "12,");
        if (c.text == "-") {
            EXPECT_TRUE(r12.empty());
            continue;
        }
        ASSERT_EQ(r12.size(), 1u);
        EXPECT_EQ(r12[0], golden("12,{fpi}," + c.text + "\n"));
    }
}

TEST_F(HttpCapture, BlockIsReadToItsByteAndEntryLimitsAndTextStopsAt2047Bytes)
{
    set("captureHTTPReqFullFp", "3%20Z");
    /* The entry after 1023 others is the 1024th and is read; one later is not. */
    for (int before : {1023, 1024}) {
        std::vector<std::string> e(static_cast<size_t>(before), "$1");
        e.push_back("Z$9");
        const auto r12 = of(capture(block(e)), "12,");
        ASSERT_EQ(r12.size(), 1u);
        EXPECT_EQ(r12[0], golden(before == 1023 ? "12,{fpi},|{Z}:<9>\n" : "12,{fpi},\n")) << before;
    }
    /* "Z$" ends at byte 4095: its value is cut to nothing. */
    const auto r = of(capture(block({"F$" + std::string(4090, 'x'), "Z$12345"})), "12,");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0], golden("12,{fpi},|{Z}:<>\n"));

    set("captureHTTPReqFullFp", "3%20ALL");
    std::vector<std::string> many;
    for (int i = 0; i < 300; ++i) many.push_back("H" + std::to_string(i) + "$" + std::string(10, 'v'));
    const auto recs = capture(block(many));
    const auto r12 = of(recs, "12,");
    ASSERT_EQ(r12.size(), 1u);
    const std::string text = r12[0].substr(r12[0].find(',', 3) + 1);
    EXPECT_EQ(text.size(), 2047u + 1) << "2047 bytes and the line feed";
    EXPECT_EQ(text.rfind(golden("{H0}:<" + std::string(10, 'v') + ">|{H1}:<"), 0), 0u);
    /* Names past the text still get their ids. */
    EXPECT_GT(of(recs, "6,").size(), 200u);
}

TEST_F(HttpCapture, IdsGoOutOnceAndValuesAsIdsPrecedeTheirRecord)
{
    set("captureHTTPReqFullFp", "3%20ALL");
    sethdrListForValueAsId(S("X-User"), nullptr, 0);
    auto first = capture(block({"Host$h", "X-User$bob"}));
    ASSERT_EQ(first.size(), 3u) << "record 6 of Host and of bob (X-User's came with the keyword)";
    EXPECT_EQ(first[0], golden("6,Host,{Host}\n"));
    EXPECT_EQ(first[1], golden("6,bob,{bob}\n"));
    EXPECT_EQ(first[2], golden("12,{fpi},{Host}:<h>|{X-User}:{bob}\n"));
    EXPECT_NE(ids_["bob"], ids_["Host"]);
    auto again = capture(block({"Host$h2", "X-User$bob"}));
    ASSERT_EQ(again.size(), 1u) << "known names and values write no record 6";
    EXPECT_EQ(again[0], golden("12,{fpi},{Host}:<h2>|{X-User}:{bob}\n"));

    /* A value too long for its record 6 gets no id: the item is left out. */
    auto longValue = capture(block({"X-User$" + std::string(1100, 'u'), "Host$h"}));
    ASSERT_EQ(of(longValue, "12,").size(), 1u);
    EXPECT_EQ(of(longValue, "12,")[0], golden("12,{fpi},|{Host}:<h>\n"));
}

TEST_F(HttpCapture, ResponseKeepsServerTextAndStatusAndDotNetNeedsAStatus)
{
    set("captureHTTPRespFullFp", "2%20ALL");
    sethdrListForValueAsId(S("Server,X-User"), nullptr, 0);
    auto recs = capture(block({"Server$edge 1.2", "X-User$ann"}), "rep", 404);
    auto r13 = of(recs, "13,");
    ASSERT_EQ(r13.size(), 1u);
    EXPECT_EQ(r13[0], golden("13,{fpi},404,{Server}:<edge 1%2E2>|{X-User}:{ann}\n"));

    set("captureHTTPRespFullFp", "2%20X-User");
    r13 = of(capture(block({"X-User$" + std::string(1100, 'u'), "Other$o"}), "rep", 200), "13,");
    ASSERT_EQ(r13.size(), 1u);
    EXPECT_EQ(r13[0], golden("13,{fpi},200,{X-User}:<" + std::string(1100, 'u') + ">\n"))
        << "the first entry falls back to text when its value gets no id";

    set("captureHTTPReqFullFp", "3%20ALL");
    app_->VXBCISetting.agentType = S("dotnet");
    EXPECT_TRUE(of(capture(block({"Host$h"}), "req", -1), "12,").empty());
    EXPECT_EQ(of(capture(block({"Host$h"}), "req", 200), "12,").size(), 1u);
    app_->VXBCISetting.agentType = S("Python");
    EXPECT_EQ(of(capture(block({"Host$h"}), "req", -1), "12,").size(), 1u);
    EXPECT_TRUE(capture("", "req", -1).empty()) << "an empty block does nothing";
}

TEST_F(HttpCapture, ListFileTypesHeadersAndHostValuesGetIdsOnlyForMarkedTypedHeaders)
{
    set("captureHTTPReqFullFp", "3%20ALL");
    sink_.clear();
    char file[] = "# headers\n\r\nX-A|Req|\nX-B|rep|x|\nbroken|line\nX-C|Other|\n";
    EXPECT_EQ(readHttpHeaderListFile(file), 3);
    EXPECT_EQ(sink_.size(), 0u) << "list file entries write no record 6";
    sethdrListForValueAsId(S("X-A,X-B,X-C"), nullptr, 0);
    auto* td = static_cast<VXPerThreadData_t*>(
        startFP(nullptr, S("/pay"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
    ASSERT_NE(td, nullptr);
    std::string items = "X-A=v.1&X-B=w&X-C=nope&Host=zz&bad";
    parseBufferAndGenerateHttpHeaderValueid(td, items.data());
    endFP(td, 200, nullptr, 0, 0, 0, nullptr);
    reset(td);
    std::vector<std::string> r6;
    for (const std::string& l : sink_.of_type(6)) r6.push_back(l.substr(0, l.rfind(',')));
    EXPECT_EQ(r6, (std::vector<std::string>{"6,v%2E1", "6,w"}));
    EXPECT_EQ(items, "X-A=v.1&X-B=w&X-C=nope&Host=zz&bad");
}

}  // namespace
