/*
 * Metadata replay: send_meta_data requests through the dispatcher (word
 * forms, destinations, refusals) and the data connection's replay of a new
 * test run. The control connection is one end of a socket pair; the test
 * reads the other.
 */
#include "session/vx_metadata_replay.h"

#include <apr_portable.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
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
using vx_test::RecordSink;
using vx_test::S;
using vx_test::SessionScope;

constexpr long long kEpoch = 1388534400000LL;
constexpr char kHead[] = "vx_meta_data_req:action=send_meta_data;";
constexpr char kComplete[] = "vx_meta_data_rep:status=complete;\n";

std::vector<std::string> sorted(std::vector<std::string> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

class MetadataReplay : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(app_ && !app_->controlLink.control.skt && app_->lws_active != 1);
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        collector_ = fds[1];
        ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS);
        apr_os_sock_t fd = fds[0];
        ASSERT_EQ(apr_os_sock_put(&app_->controlLink.control.skt, &fd, pool_), APR_SUCCESS);
    }
    void TearDown() override
    {
        app_->controlLink.control.skt = nullptr;
        apr_pool_destroy(pool_); /* closes the agent's end */
        close(collector_);
    }

    /* What the agent wrote on the control connection since the last call. */
    std::string control()
    {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = recv(collector_, buf, sizeof buf, MSG_DONTWAIT)) > 0)
            out.append(buf, static_cast<size_t>(n));
        return out;
    }

    /* One of each id a table gives out; the texts' ids are read back. */
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
        hdr_ = searchAndUpdatehttpHashMapNode(S("X-Trace"), app_->httpHashMapNode, 1);
        char bt[vx::kBTNameSize] = "Checkout";
        bt_ = updateBTObject(bt);
        ASSERT_TRUE(hdr_ && bt_);
        query_ = checkAndProcessQuery(S("select 1"), 99);
        resource_ = getIDForIPResourceURL(S("/pay/now"));
        checkAndgenerateIDForDiscoveredExceptions(S("java.io.IOException"));
        getIDAndDumpThrowingClassName(S("app.Io"));
        getIDAndDumpThrowingMethodName(S("read"));
        getIDAndDumpExceptionMessage(S("disk gone"));
        getIDAndDumpExceptionCause(S("no space"));
    }

    /* A request through the dispatcher, as the control thread gets it. */
    void request(const std::string& fields)
    {
        std::string line = kHead + fields;
        handleReceivedClientMessageFromVXCollector(line.data());
    }

    /* The record lines every table must replay, golden but for the ids. */
    std::vector<std::string> every_record()
    {
        const std::string m1 = std::to_string(m1_->methodId), m2 = std::to_string(m2_->methodId);
        return {"5,app.Cart.add," + m1 + "\n",
                "5,app.Cart.total()I," + m2 + "\n",
                "6,X-Trace," + std::to_string(hdr_->id) + "\n",
                "7," + std::to_string(bt_->bt_id) + ",Checkout\n",
                "22,0," + std::to_string(query_) + ",select 1\n",
                "26," + std::to_string(resource_) + ",/pay/now\n",
                "32,1,java.io.IOException\n",
                "33,1,app.Io\n",
                "34,1,read\n",
                "35,1,disk gone\n",
                "36,1,no space\n"};
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{app_->Server, app_->metadataReplay};
    apr_pool_t* pool_ = nullptr;
    int collector_ = -1;
    methodPropProperties* m1_ = nullptr;
    methodPropProperties* m2_ = nullptr;
    httpHeaderInfo* hdr_ = nullptr;
    BTObject* bt_ = nullptr;
    long long query_ = 0;
    long long resource_ = 0;
};

TEST_F(MetadataReplay, WordFormsSelectRecordsAndRefusalsAnswerWithTheirText)
{
    SessionScope session(7, kEpoch);
    FrozenClock clock(kEpoch + 5000, 0);
    fill_tables();
    app_->metadataReplay.lastSentMetadataTimeStamp = 9000;
    const std::string m2 = std::to_string(m2_->methodId);
    const std::string bt = "7," + std::to_string(bt_->bt_id) + ",Checkout\n";
    const std::string m2line = "5,app.Cart.total()I," + m2 + "\n";
    struct Case {
        std::string fields;
        char busy; /* controlCommunicationBusyFlag: a data thread runs */
        std::vector<std::string> data;
        std::string control;
    };
    const Case cases[] = {
        /* One id: that record only, no record 11; "key=list" and bare list. */
        {"a;b;c;records=5_" + m2 + ";1;0", 1, {m2line}, kComplete},
        {"a;b;c;5_" + m2 + ";1", 1, {m2line}, kComplete},
        /* "+": that id and above (m2 is the table's newest method). */
        {"a;b;c;5_+" + std::to_string(m1_->methodId) + ";1",
         1,
         {"5,app.Cart.add," + std::to_string(m1_->methodId) + "\n", m2line},
         kComplete},
        /* A type alone: record 11 with the type, then all of it. */
        {"a;b;c;7;1", 1, {"11,5000,7\n", bt}, kComplete},
        /* A time after the last sent metadata is accepted. */
        {"a;b;c;5_" + m2 + ":9001;1", 1, {m2line}, kComplete},
        {"a;b;c;6:4000;1",
         1,
         {},
         "Wrong Timestamp : RecordField- 6 Paased timeStamp- 4000 Should be more than last sent "
         "metadata "
         "timestamp 9000" +
             std::string(kComplete)},
        {"a;b;c;99;1",
         1,
         {},
         "Invalid Request recieved from client : '99'\n" + std::string(kComplete)},
        {"a;b;c;26,36;1",
         1,
         {},
         "Invalid Request recieved from client : '36'\n" + std::string(kComplete)},
        {"a;b;c;records=;1", 1, {}, "Invalid Request : 'records='\n" + std::string(kComplete)},
        {"a;b;c;,;1", 1, {}, "Invalid Request : ','\n" + std::string(kComplete)},
        /* No data thread: each record is refused on the control connection. */
        {"a;b;c;5_" + m2 + ";1",
         0,
         {},
         "vx_meta_data_rep:action=send_meta_data;result=Error :<Unable to write current Cached "
         "Record = 5,"
         "app.Cart.total()I," +
             m2 + " , on data connection, because currently there is no test running.>\n" +
             kComplete},
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
    ASSERT_FALSE(data.empty());
    EXPECT_EQ(data[0], "11,5000,All\n");
    const std::vector<std::string> lines = vx_test::split_lines(control());
    /* The summary comes first, then the same records as on the data side. */
    const std::string summary =
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
        "-------------------SummaryReport(CachedRecords)---------------------";
    const std::string expected = vx_test::fill(
        summary,
        {{"methods", std::to_string(apr_hash_count(app_->methodTable.methodHashMapNode->ptr))},
         {"bts", std::to_string(apr_hash_count(app_->manager.bt_obj_map.hash))}});
    ASSERT_GE(lines.size(), 13u);
    std::string head;
    for (size_t i = 0; i < 12; ++i) head += lines[i];
    EXPECT_EQ(head.substr(0, expected.size()), expected);
    ASSERT_EQ(lines.back(), kComplete);
    /* The summary's last line runs into the first record: the text has no
     * line feed of its own. */
    std::vector<std::string> onControl(lines.begin() + 12, lines.end() - 1);
    onControl.insert(onControl.begin(), head.substr(expected.size()));
    EXPECT_EQ(sorted(onControl), sorted(std::vector<std::string>(data.begin() + 1, data.end())));
    for (const std::string& r : every_record())
        EXPECT_EQ(std::count(data.begin(), data.end(), r), 1) << r;
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

TEST_F(MetadataReplay, NewTestRunReplaysAllOnTheDataConnectionOnly)
{
    SessionScope session(7, kEpoch);
    FrozenClock clock(kEpoch + 5000, 0);
    fill_tables();
    struct Case {
        char doNotDumpMetaData, busy;
        size_t records; /* 0: none; else record 11 "All" and every table */
    };
    for (const Case c : {Case{1, 1, 1}, Case{0, 1, 0}, Case{1, 0, 0}}) {
        app_->Server.doNotDumpMetaData = c.doNotDumpMetaData;
        app_->Server.controlCommunicationBusyFlag = c.busy;
        RecordSink sink;
        vx::data_hooks_run(vx::DataHook::kConnected);
        const std::vector<std::string> data = sink.lines();
        EXPECT_EQ(control(), ""); /* the data thread never writes on the control connection */
        if (!c.records) {
            EXPECT_TRUE(data.empty());
            continue;
        }
        ASSERT_FALSE(data.empty());
        EXPECT_EQ(data[0], "11,5000,All\n");
        for (const std::string& r : every_record())
            EXPECT_EQ(std::count(data.begin(), data.end(), r), 1) << r;
    }
}

}  // namespace
