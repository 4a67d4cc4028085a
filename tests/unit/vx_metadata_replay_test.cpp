/*
 * Metadata replay: send_meta_data requests through the dispatcher (word
 * forms, destinations, refusals) and the data connection's replay of a new
 * test run. The control connection is a vx_test::ControlPeer.
 */
#include "session/vx_metadata_replay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "core/vx_record_door.h"
#include "diag/vx_exception_capture.h"
#include "diag/vx_sql_processor.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_resource_ids.h"
#include "http/vx_header_ids.h"
#include "session/vx_control_dispatch.h"
#include "vx_test_support.h"

namespace {

using vx_test::FrozenClock;
using vx_test::kEpoch;
using vx_test::RecordSink;
using vx_test::S;
using vx_test::SessionScope;

constexpr char kHead[] = "vx_meta_data_req:action=send_meta_data;";
constexpr char kComplete[] = "vx_meta_data_rep:status=complete;\n";

std::vector<std::string> sorted(std::vector<std::string> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

class MetadataReplay : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(app_->lws_active, 1); }

    /* What the agent wrote on the control connection since the last call. */
    std::string control() { return peer_.take(); }

    /* One of each id a table gives out, and the records that replay them,
     * golden but for the ids the tables chose. */
    void fill_tables()
    {
        exceptionMapInit();
        free_HttpHashMapNode();
        VXBTConfigModelInit();
        node_t* node = app_->methodTable.methodHashMapNode;
        m1_ = searchAndUpdateMethodHashMap(S("app.Cart.add"), node, 0, 0, 0);
        m2_ = searchAndUpdateMethodHashMap(S("app.Cart.total"), node, 0, 0, 0);
        ASSERT_TRUE(m1_ && m2_);
        m2_->methodRetType = S("I"); /* announced with its signature */
        httpHeaderInfo* hdr =
            searchAndUpdatehttpHashMapNode(S("X-Trace"), app_->httpHashMapNode, 1);
        char name[vx::kBTNameSize] = "Checkout";
        bt_ = updateBTObject(name);
        ASSERT_TRUE(hdr && bt_);
        const long long query = checkAndProcessQuery(S("select 1"), 99);
        const long long resource = getIDForIPResourceURL(S("/pay/now"));
        checkAndgenerateIDForDiscoveredExceptions(S("java.io.IOException"));
        getIDAndDumpThrowingClassName(S("app.Io"));
        getIDAndDumpThrowingMethodName(S("read"));
        getIDAndDumpExceptionMessage(S("disk gone"));
        getIDAndDumpExceptionCause(S("no space"));
        auto id = [](long long v) { return std::to_string(v); };
        records_ = {"5,app.Cart.add," + id(m1_->methodId) + "\n",
                    "5,app.Cart.total()I," + id(m2_->methodId) + "\n",
                    "6,X-Trace," + id(hdr->id) + "\n", "7," + id(bt_->bt_id) + ",Checkout\n",
                    "22,0," + id(query) + ",select 1\n", "26," + id(resource) + ",/pay/now\n",
                    "32,1,java.io.IOException\n", "33,1,app.Io\n", "34,1,read\n",
                    "35,1,disk gone\n", "36,1,no space\n"};
    }

    /* Record 11 "All" first, and each table's record once. */
    void expect_every_table(const std::vector<std::string>& data)
    {
        ASSERT_FALSE(data.empty());
        EXPECT_EQ(data[0], "11,5000,All\n");
        for (const std::string& r : records_)
            EXPECT_EQ(std::count(data.begin(), data.end(), r), 1) << r;
    }

    /* A request through the dispatcher, as the control thread gets it. */
    void request(const std::string& fields)
    {
        std::string line = kHead + fields;
        handleReceivedClientMessageFromVXCollector(line.data());
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{app_->Server, app_->metadataReplay};
    vx_test::ControlPeer peer_;
    methodPropProperties* m1_ = nullptr;
    methodPropProperties* m2_ = nullptr;
    BTObject* bt_ = nullptr;
    std::vector<std::string> records_;
};

TEST_F(MetadataReplay, WordFormsSelectRecordsAndRefusalsAnswerWithTheirText)
{
    SessionScope session(7, kEpoch);
    FrozenClock clock(kEpoch + 5000, 0);
    fill_tables();
    app_->metadataReplay.lastSentMetadataTimeStamp = 9000;
    const std::string m1 = std::to_string(m1_->methodId), m2 = std::to_string(m2_->methodId);
    const std::string bt = "7," + std::to_string(bt_->bt_id) + ",Checkout\n";
    const std::string m2line = "5,app.Cart.total()I," + m2 + "\n";
    struct Case {
        std::string fields;
        char busy; /* controlCommunicationBusyFlag: a data thread runs */
        std::vector<std::string> data;
        std::string control;
    };
    const auto refused = [](const std::string& why) { return why + kComplete; };
    const Case cases[] = {
        /* One id: that record only, no record 11; "key=list" and bare list. */
        {"a;b;c;records=5_" + m2 + ";1;0", 1, {m2line}, kComplete},
        {"a;b;c;5_" + m2 + ";1", 1, {m2line}, kComplete},
        /* "+": that id and above (m2 is the table's newest method). */
        {"a;b;c;5_+" + m1 + ";1", 1, {"5,app.Cart.add," + m1 + "\n", m2line}, kComplete},
        /* A type alone: record 11 with the type, then all of it. */
        {"a;b;c;7;1", 1, {"11,5000,7\n", bt}, kComplete},
        /* A time after the last sent metadata is accepted, one before it not. */
        {"a;b;c;5_" + m2 + ":9001;1", 1, {m2line}, kComplete},
        {"a;b;c;6:4000;1", 1, {}, refused("Wrong Timestamp : RecordField- 6 Paased timeStamp- "
                                          "4000 Should be more than last sent metadata timestamp 9000")},
        {"a;b;c;99;1", 1, {}, refused("Invalid Request recieved from client : '99'\n")},
        /* 26 and 36 come only with ALL; the last refusal is the one told. */
        {"a;b;c;26,36;1", 1, {}, refused("Invalid Request recieved from client : '36'\n")},
        {"a;b;c;records=;1", 1, {}, refused("Invalid Request : 'records='\n")},
        /* No data thread: each record is refused on the control connection. */
        {"a;b;c;5_" + m2 + ";1", 0, {}, refused("vx_meta_data_rep:action=send_meta_data;result=Error :"
            "<Unable to write current Cached Record = " + m2line.substr(0, m2line.size() - 1) +
            " , on data connection, because currently there is no test running.>\n")},
    };
    for (const Case& c : cases) {
        app_->Server.controlCommunicationBusyFlag = c.busy;
        RecordSink sink;
        request(c.fields);
        EXPECT_EQ(sorted(sink.lines()), sorted(c.data)) << c.fields; /* the table's order */
        EXPECT_EQ(control(), c.control) << c.fields;
    }
}

TEST_F(MetadataReplay, AllOnBothConnectionsReplaysEveryTableInItsFormat)
{
    SessionScope session(7, kEpoch);
    FrozenClock clock(kEpoch + 5000, 0);
    fill_tables();
    app_->Server.controlCommunicationBusyFlag = 1;
    RecordSink sink;
    request("a;b;c;ALL;2;0");
    const std::vector<std::string> data = sink.lines();
    expect_every_table(data);
    /* The summary first (it ends without a line feed), then the records the
     * data side got, and dispatch's answer. */
    const std::string summary = vx_test::fill(
        "-------------------SummaryReport(CachedRecords)---------------------: \n"
        "Total no. of instrumented Methods(5 Records) : {methods} \n"
        "Total no. of Cached Pages(41 Records) : 0, \n"
        "Total Number of Cached URLs(7 Records) : {bts}, \n"
        "Total Number of cached SQL Query(22 Records) : 1, \n"
        "Total Number of Cached Headers(6 Records) : 1, \n"
        "Total Number of Cached Exception Classes(32 Records) : 1, \n"
        "Total Number of Cached ThrowingClasses(33 Records) : 1, \n"
        "Total Number of Cached ThrowingMethods(34 Records) : 1, \n"
        "Total Number of Cached Exception Messages (35 Records): 1 \n"
        "Total Number of Cached Exception Cause (36 Records): 1 \n"
        "-------------------SummaryReport(CachedRecords)---------------------",
        {{"methods", std::to_string(apr_hash_count(app_->methodTable.methodHashMapNode->ptr))},
         {"bts", std::to_string(apr_hash_count(app_->manager.bt_obj_map.hash))}});
    const std::string text = control();
    ASSERT_EQ(text.substr(0, summary.size()), summary);
    std::vector<std::string> onControl = vx_test::split_lines(text.substr(summary.size()));
    ASSERT_EQ(onControl.back(), kComplete);
    onControl.pop_back();
    EXPECT_EQ(sorted(onControl), sorted(std::vector<std::string>(data.begin() + 1, data.end())));
}

TEST_F(MetadataReplay, WithoutASessionNothingIsReplayed)
{
    app_->Server.controlCommunicationBusyFlag = 1;
    RecordSink sink;
    request("a;b;c;ALL;2;0");
    EXPECT_EQ(control(),
              "vx_meta_data_rep:action=send_meta_data;result=Error :<No test running.>\n");
    EXPECT_EQ(sink.size(), 0u);
}

TEST_F(MetadataReplay, EveryDataConnectionReplaysAllOnItOnly)
{
    SessionScope session(7, kEpoch);
    FrozenClock clock(kEpoch + 5000, 0);
    fill_tables();
    /* doNotDumpMetaData (a new test run or the same again),
     * controlCommunicationBusyFlag, whether it replays. */
    for (const auto& [fresh, busy, replays] :
         {std::tuple{1, 1, true}, {0, 1, true}, {1, 0, false}}) {
        app_->Server.doNotDumpMetaData = static_cast<char>(fresh);
        app_->Server.controlCommunicationBusyFlag = static_cast<char>(busy);
        RecordSink sink;
        vx::data_hooks_run(vx::DataHook::kConnected);
        EXPECT_EQ(control(), ""); /* the data thread never writes on the control connection */
        if (replays)
            expect_every_table(sink.lines());
        else
            EXPECT_EQ(sink.size(), 0u);
    }
}

}  // namespace
