/* The auto-sensor connection: its opening line and records checked against
 * golden text, then the connection and the stress options over loopback. */
#include "auto_sensor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "loopback.h"

namespace {

using namespace vxc_test;

/* 3 flowpaths of 10, 20 and 30 ms in 10 s, all normal. */
const std::string kBt5 =
    "74,1|2|5:front>web1>shop>/shop/cart|0.300000 20.000000 10.000000 30 3 0.0 0.000000 "
    "20.000000 10.000000 30 3 0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 "
    "500000.000000 0 0 0.000000 0.000000 0.000000 0.000000 3 0.000000 0 0 3 0.000000 0 0 3 "
    "0.000000 2147483647 0 3";
/* An overall line of an interval without traffic. */
const std::string kOverall =
    "74,1|2|0:front>web1>shop>AllTransactions|0.000000 0.000000 500000.000000 0 0 0.0 0.000000 "
    "0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 "
    "500000.000000 0 0 0.000000 0.000000 0.500000 0.000000 0 0.000000 2147483647 0 0 0.000000 "
    "2147483647 0 0 0.000000 2147483647 0 0";
const std::string k53 =
    "53,1|2|1:front>web1>shop|40 2 1.500000 1.000000 2.000000 2 1 2.000000 2.000000 2.000000 1 0 "
    "0 0 0 0";
const std::string k52 =
    "52,1,3,2,77,no name-77,1700000000,1500,1,RUNNABLE,5,12,0,0,123456789,1700000001,0,0,0,0,0,"
    "at a.b(c.java:1)|at d.e(f.java:2)|";

std::string with(std::string s, const std::string& from, const std::string& to)
{
    const size_t at = s.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? s : s.replace(at, from.size(), to);
}

vxc::AsOpening opening()
{
    vxc::AsOpening o;
    std::string line = kAsOpening;
    line.pop_back();
    EXPECT_EQ(vxc::check_as_opening(line, &o, nullptr), 0);
    return o;
}

/* Each line is refused under the opening `o`, with a reason. */
template <size_t N>
void expect_refused(const std::string (&bad)[N], const vxc::AsOpening& o)
{
    for (const std::string& line : bad) {
        std::string error;
        EXPECT_EQ(vxc::parse_as_record(line, &o, nullptr, &error), -1) << "accepted: " << line;
        EXPECT_FALSE(error.empty()) << line;
    }
}

TEST(AutoSensorOpening, FieldsInTheirOrderWithTheCommaBeforeTestIdx)
{
    const vxc::AsOpening o = opening();
    EXPECT_EQ(o.app_name + o.server_host + o.tier_name + o.agent_name, "shopweb1frontshop-1");
    EXPECT_EQ(o.app_id * 100 + o.server_id * 10 + o.tier_id, 231);
    EXPECT_EQ(o.collector_port, 7892);
    EXPECT_EQ(o.test_idx, 12);
    EXPECT_EQ(o.pid, 4242);
    std::string good = kAsOpening;
    good.pop_back();
    EXPECT_EQ(vxc::classify_first_line(good), vxc::FirstLine::AutoSensorOpening);
    const std::string bad[] = {
        with(good, "7892,testIdx", "7892;testIdx"), /* the data line's semicolon */
        with(good, "vxAppServerID=3;", ""),         /* missing field */
        with(good, "appID=2;vxAppServerID=3", "vxAppServerID=3;appID=2"), /* out of order */
        with(good, "appID=2", "appID=x"),
        with(good, "tierID=1", "tierID=01"),
        with(good, "pid=4242", "pid=4242.5"),
        with(good, "testIdx=12", "testIdx=99999999999"), /* past %d */
        with(good, "auto_sensor_thread_hotspot_data_req", "vx_data_msg_req"),
    };
    for (const std::string& line : bad) {
        std::string error;
        EXPECT_EQ(vxc::check_as_opening(line, nullptr, &error), -1) << line;
        EXPECT_FALSE(error.empty()) << line;
    }
}

TEST(AutoSensorRecords, GoldenLinesAreAcceptedAndReadBack)
{
    const vxc::AsOpening o = opening();
    vxc::AsRecord r;
    ASSERT_EQ(vxc::parse_as_record(kBt5, &o, &r, nullptr), 0);
    EXPECT_EQ(r.kind, vxc::AsKind::BtMonitor);
    EXPECT_EQ(r.bt.id, 5);
    EXPECT_EQ(r.bt.name, "/shop/cart");
    EXPECT_FALSE(r.bt.tagged);
    EXPECT_EQ(vxc::bt_monitor_row(4, 7, r.bt),
              "4\t7\t5\t/shop/cart\t0\t\t0.300000\t20.000000\t10.000000\t30\t3\t0");
    const std::string tagged = with(kBt5, "/shop/cart|", "/shop/cart|{\"a\":\"1\"}|");
    ASSERT_EQ(vxc::parse_as_record(tagged, &o, &r, nullptr), 0);
    EXPECT_TRUE(r.bt.tagged);
    EXPECT_EQ(r.bt.tag, "{\"a\":\"1\"}");
    ASSERT_EQ(vxc::parse_as_record(with(kBt5, "/shop/cart|", "/shop/cart||"), &o, &r, nullptr), 0);
    EXPECT_TRUE(r.bt.tagged) << "a tag set reported again has an empty tag text";
    EXPECT_EQ(r.bt.tag, "");

    const std::pair<std::string, vxc::AsKind> good[] = {
        {kOverall, vxc::AsKind::BtMonitor},
        {k53, vxc::AsKind::ThreadSummary},
        {"53,1|2|1:front>web1>shop|40 0 0.000000 0.000000 0.000000 0 0 0.000000 0.000000 "
         "0.000000 0 0 0 0 0 0",
         vxc::AsKind::ThreadSummary},
        {k52, vxc::AsKind::HotSpot},
        {with(k52, "at a.b(c.java:1)|at d.e(f.java:2)|", ""), vxc::AsKind::HotSpot},
        {"7,1|2|0:front>web1>shop|GC pause, 12 ms", vxc::AsKind::GcReport},
        {"74,1|2|0:front>web1>shop|young gen", vxc::AsKind::GcReport}, /* the host's id 74 */
        {"75,1|2|0:front>web1>shop|young gen", vxc::AsKind::GcReport}, /* the host's id 75 */
        {"61,1|2|0:front>web1>shop|young gen", vxc::AsKind::GcReport}, /* the host's id 61 */
    };
    for (const auto& [line, kind] : good) {
        std::string error;
        ASSERT_EQ(vxc::parse_as_record(line, &o, &r, &error), 0) << line << ": " << error;
        EXPECT_EQ(r.kind, kind) << line;
    }
    ASSERT_EQ(vxc::parse_as_record(with(kBt5, "front", "back"), nullptr, &r, nullptr), 0)
        << "with no good opening line any vector does";
}

TEST(AutoSensorRecords, LinesThatMissTheirFormatAreRefused)
{
    const vxc::AsOpening o = opening();
    const std::string bad[] = {
        "",
        "2,123456789,5000,77,77.1,3,/a,,1,2,55,,0,15,,,", /* data connection */
        "auto_sensor_GCDump:7,1|2|0:front>web1>shop|gc",  /* the proxy's form */
        kBt5 + " 3",                                      /* 41 values */
        with(kBt5, " 0 3", " 3"),                         /* 39 values */
        with(kBt5, "20.000000 10.000000 30", "20.000000 10.000000 30.000000"),
        with(kBt5, "0.300000", "0.3"),
        with(kBt5, "0.300000", "nan"),
        with(kBt5, " 0.0 ", " 0 "),
        with(kBt5, " 30 3 0.0", " 30  3 0.0"),
        with(kBt5, "3 0.000000 0 0 3", "4 0.000000 0 0 3"), /* value 28 repeats the count */
        with(kBt5, "front>", "back>"),                      /* not the opening's vector */
        with(kBt5, "74,1|", "74,9|"),
        with(kBt5, "front>web1>shop>", "front>web1>shop"),
        with(kOverall, "AllTransactions", "All"),
        with(k53, " 0 0 0 0 0", " 0 0 0 0"),
        with(k53, "|1:", "|2:"),
        with(k53, " 2 1 2.0", " 3 1 2.0"),
        "53,1|2|1:front>web1>shop|40 0 0.000000 2147483.647000 0.000000 0 0 0.000000 0.000000 "
        "0.000000 0 0 0 0 0 0",
        with(k52, "no name-77", "no name-78"),
        with(k52, "1500,1,", "1500,2,"),
        with(k52, "52,1,3,", "52,1,4,"),
        with(k52, "0,0,0,0,0,", "0,0,0,0,"),
        with(k52, "at a.b", "at, a.b"),
        with(k52, "at a.b", "at\ra.b"),
        "7,1|2|0:front>web1|gc",
    };
    expect_refused(bad, o);
}

/* 4 calls of 10, 20, 30 and 40 ms in 10 s, one failed, of backend 3, whose
 * name holds the '|' of its description. */
const std::string k75 =
    "75,1|2|3:front>web1>shop>HTTP_pay|8080|4 0.400000 25.000000 10 40 4 1 0.0 0 0 4 0.0 0 0 4 "
    "0.100000 0 0 0 0 0 0";

TEST(AutoSensorRecords, BackendMonitorLinesAreCheckedValueByValue)
{
    const vxc::AsOpening o = opening();
    vxc::AsRecord r;
    std::string error;
    ASSERT_EQ(vxc::parse_as_record(k75, &o, &r, &error), 0) << error;
    EXPECT_EQ(r.kind, vxc::AsKind::BackendMonitor);
    EXPECT_EQ(vxc::backend_monitor_row(2, 1, r.backend),
              "2\t1\t3\tHTTP_pay|8080\t4\t0.400000\t25.000000\t10\t40\t4\t1\t0.100000");
    /* An interval without calls of a backend a thread has counted before. */
    const std::string idle =
        "75,1|2|3:front>web1>shop>db|4 0.000000 0.000000 2147483647 0 0 0 0.0 0 0 0 0.0 0 0 0 "
        "0.000000 0 0 0 0 0 0";
    ASSERT_EQ(vxc::parse_as_record(idle, &o, &r, &error), 0) << error;

    const std::string bad[] = {
        k75 + " 0",                                  /* 23 values */
        with(k75, " 0 0 0 0 0 0", " 0 0 0 0 0"),     /* 21 values */
        with(k75, "0.400000", "0.4"),                /* %lf */
        with(k75, "25.000000 10", "25.000000 10.0"), /* %lld */
        with(k75, "1 0.0 0 0 4", "1 0 0 0 4"),       /* literal 0.0 at 8 */
        with(k75, "0 4 0.0 0 0 4", "0 4 0.0 0 1 4"), /* literal 0 at 14 */
        with(k75, "0.100000 0 0 0 0 0 0", "0.100000 0 0 0 0 0 1"),
        with(k75, "1 0.0 0 0 4", "1 0.0 0 0 5"),       /* 11 repeats the count */
        with(k75, "0 0 4 0.100000", "0 0 3 0.100000"), /* so does 15 */
        with(k75, "40 4 1 0.0", "40 4 5 0.0"),         /* more errors than calls */
        with(k75, "|4 0.400000", "|3 0.400000"),       /* fewer calls in the session */
        with(k75, "|3:", "|0:"),                       /* no overall line */
        with(k75, "75,1|", "75,9|"),
        with(k75, "front>", "back>"),
        with(k75, "HTTP_pay|8080|", "|"),
    };
    expect_refused(bad, o);
}

/* Method 3, alias "pay|fast", 3 calls of 10, 20 and 30 ms in 10 s, 5 in the
 * session; exception class 4 thrown twice, and the overall line. */
const std::string k61 = "61,1|2|3:front>web1>shop>pay|fast|5 0.300000 20.000000 10.000000 30 3";
const std::string k63 = "63,1|2|4:front>web1>shop>IO|2 0.200000 ";
const std::string k63All = "63,1|2|0:front>web1>shop>OverAll|2 0.200000 ";

TEST(AutoSensorRecords, MethodAndExceptionMonitorLinesAreCheckedValueByValue)
{
    const vxc::AsOpening o = opening();
    vxc::AsRecord r;
    std::string error;
    ASSERT_EQ(vxc::parse_as_record(k61, &o, &r, &error), 0) << error;
    EXPECT_EQ(r.kind, vxc::AsKind::MethodMonitor);
    EXPECT_EQ(vxc::method_monitor_row(2, 1, r.method),
              "2\t1\t3\tpay|fast\t5\t0.300000\t20.000000\t10.000000\t30\t3");
    for (const std::string& line : {k63, k63All}) {
        ASSERT_EQ(vxc::parse_as_record(line, &o, &r, &error), 0) << error;
        EXPECT_EQ(r.kind, vxc::AsKind::ExceptionMonitor);
    }
    EXPECT_EQ(vxc::exception_monitor_row(2, 1, r.exception), "2\t1\t0\tOverAll\t2\t0.200000");
    /* An interval without calls of a method counted before. */
    ASSERT_EQ(vxc::parse_as_record(
                  "61,1|2|3:front>web1>shop>pay|5 0.000000 0.000000 2147483647.000000 0 0", &o,
                  &r, &error),
              0)
        << error;

    const std::string bad[] = {
        k61 + " 0",                                /* 7 values */
        with(k61, "10.000000 30", "10 30"),        /* minimum is %lf */
        with(k61, "30 3", "30.000000 3"),          /* maximum is %lld */
        with(k61, "|5 0.3", "|2 0.3"),             /* fewer calls in the session */
        with(k61, "|3:", "|0:"),                   /* no overall line */
        with(k61, "shop>pay|fast|", "shop>|"),     /* empty name */
        with(k63, "0.200000 ", "0.200000"),        /* the blank before the end */
        with(k63, "2 0.2", "2 1 0.2"),             /* 3 values */
        with(k63, "2 0.200000", "2.0 0.200000"),   /* %d */
        with(k63, "|4:", "|0:"),                   /* id 0 is OverAll only */
        with(k63All, "OverAll", "Overall"),
        with(k63All, "|0:", "|5:"),
        with(k63, "63,1|", "63,9|"),
    };
    expect_refused(bad, o);
}

const std::string k96 = "96,1|2|793|1:front>web1>shop>/shop/cart,1700000000000,52";
const std::string k121 = "121,1|2|793|1|5:front>web1>shop>/shop/cart||1700000000000,115";

TEST(AutoSensorRecords, DigestHeadsAreReadFieldByFieldFromBothEnds)
{
    const vxc::AsOpening o = opening();
    vxc::AsRecord r;
    std::string error;
    ASSERT_EQ(vxc::parse_as_record(k96, &o, &r, &error), 0) << error;
    EXPECT_EQ(r.kind, vxc::AsKind::Digest);
    EXPECT_EQ(r.digest.group_id * 10 + r.digest.graph_id, 7931);
    EXPECT_EQ(r.digest.series, -1);
    EXPECT_EQ(r.digest.name, "/shop/cart");
    EXPECT_EQ(r.digest.ts, 1700000000000);
    EXPECT_EQ(r.digest.bytes, 52);
    ASSERT_EQ(vxc::parse_as_record(k121, &o, &r, &error), 0) << error;
    EXPECT_EQ(r.digest.series, 5);
    EXPECT_EQ(r.digest.name, "/shop/cart");
    EXPECT_EQ(r.digest.bytes, 115);
    const std::string odd_name = with(k96, "/shop/cart", "/a?b=1,2|x");
    ASSERT_EQ(vxc::parse_as_record(odd_name, &o, &r, &error), 0) << error;
    EXPECT_EQ(r.digest.name, "/a?b=1,2|x");
    ASSERT_EQ(vxc::parse_as_record(
                  with(k121, "|5:front>web1>shop>/shop/cart", "|0:front>web1>shop>AllTransactions"),
                  &o, &r, &error),
              0)
        << error;
    ASSERT_EQ(vxc::parse_as_record("96,1|2|0:front>web1>shop|young gen", &o, &r, &error), 0);
    EXPECT_EQ(r.kind, vxc::AsKind::GcReport) << "the host's id 96";

    const std::string bad[] = {
        with(k96, ",52", ",16777217"), /* over the body bound */
        with(k96, ",52", ",-1"),
        with(k96, ",52", ",052"),
        with(k96, ",52", ""),        /* no body length */
        with(k96, "96,1|", "96,9|"), /* not the opening's tier */
        with(k96, "front>", "back>"),
        with(k96, "793|1:", "793|1|5:"), /* 121's ids */
        with(k121, "793|1|5:", "793|1:"),
        with(k96, "793|", "x|"),
        with(k96, "/shop/cart", ""),
        with(k121, "cart||", "cart|text|"), /* the text is empty */
        with(k121, "|5:", "|0:"),           /* series 0 is AllTransactions */
    };
    expect_refused(bad, o);
    /* A refused head still says how long its body is, if it can. */
    EXPECT_EQ(vxc::digest_body_length(with(k96, "96,1|", "96,9|")), 52);
    EXPECT_EQ(vxc::digest_body_length("121,x,0"), 0);
    EXPECT_EQ(vxc::digest_body_length(with(k96, ",52", ",16777217")), -1);
    EXPECT_EQ(vxc::digest_body_length("97,x,1"), -1);
}

vxc::BtMonitorLine bt_line(long long id, const char* name, const char* avg, const char* count,
                           const char* tag = nullptr)
{
    vxc::BtMonitorLine bt;
    bt.id = id;
    bt.name = name;
    bt.tagged = tag != nullptr;
    bt.tag = tag ? tag : "";
    bt.fields.assign(40, "0");
    bt.fields[1] = avg;
    bt.fields[4] = count;
    return bt;
}

TEST(AutoSensorRecords, ExactTotalsAreAvgTimesCountPerNameUntilItsNextDigest)
{
    vxc::ExactTotals t;
    t.add(bt_line(3, "/a", "20.333333", "3")); /* 60.999999: 61 */
    t.add(bt_line(4, "/b", "0.400000", "1"));  /* rounds to 0: no value */
    t.add(bt_line(3, "/a", "10.000000", "1"));
    t.add(bt_line(4, "/b", "7.500000", "2"));
    /* With tags on: series 8 is a tag set (its text came once), series 9
     * the BT's own line. */
    t.add(bt_line(8, "/b", "100.000000", "1", "{\"a\":\"1\"}"));
    t.add(bt_line(8, "/b", "100.000000", "1", ""));
    t.add(bt_line(9, "/b", "9.000000", "1", ""));
    t.add(bt_line(0, "AllTransactions", "50.000000", "4"));
    EXPECT_EQ(t.take(96, "/a"), (std::vector<double>{61, 10}));
    EXPECT_EQ(t.take(96, "/a"), std::vector<double>{}) << "the list restarts after a digest";
    EXPECT_EQ(t.take(121, "/a"), (std::vector<double>{61, 10})) << "each record has its own";
    EXPECT_EQ(t.take(96, "/b"), (std::vector<double>{15, 9}));
    EXPECT_EQ(t.take(96, "AllTransactions"), (std::vector<double>{61, 10, 15, 9}));
    t.add(bt_line(3, "/a", "5.000000", "1"));
    EXPECT_EQ(t.take(96, "/a"), std::vector<double>{5});
    EXPECT_EQ(t.take(121, "AllTransactions"), (std::vector<double>{61, 10, 15, 9, 5}));
}

TEST_F(Loopback, AutoSensorRecordsAreStoredCheckedCountedAndNeverAnswered)
{
    start(vxc::Options{});
    Client data(port_);
    ASSERT_TRUE(data.send(std::string(kOpening) + "7,5,/shop/cart\n"));
    ASSERT_TRUE(wait_for_text(dir_, "-data.lines", "7,5,"));
    Client as(port_);
    const std::string undeclared = with(kBt5, "|5:", "|9:");
    const std::string lines = kBt5 + "\n" + undeclared + "\n" + k75 + "\n" + kOverall + "\n" + k75 +
                              "\n" + k53 + "\n" + k52 + "\n7,1|2|0:front>web1>shop|gc\n\n10,\n" +
                              kOverall + "\n";
    ASSERT_TRUE(as.send(std::string(kAsOpening) + lines));
    std::string reply;
    EXPECT_FALSE(as.read_line(&reply, std::chrono::milliseconds(300))) << reply;
    Client bad(port_);
    ASSERT_TRUE(bad.send(with(kAsOpening, "7892,", "7892;") + kBt5 + "\n"));
    ASSERT_TRUE(wait_for_text(dir_, "0002-autosensor.lines", "10,\n" + kOverall));
    ASSERT_TRUE(wait_for_text(dir_, "0003-autosensor.lines", kBt5));
    stop();

    EXPECT_EQ(collector_->auto_sensor_connections().size(), 2u);
    EXPECT_EQ(slurp(find_file(dir_, "0002-autosensor.lines")), kAsOpening + lines);
    const std::vector<vxc::BtMonitorRow> rows = collector_->bt_monitor();
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows[0].conn, 2u);
    EXPECT_EQ(rows[0].count, 3);
    EXPECT_DOUBLE_EQ(rows[0].tps, 0.3);
    EXPECT_EQ(rows[0].max, 30);
    EXPECT_EQ(rows[2].name, "AllTransactions");
    EXPECT_EQ(rows[2].interval, 0u) << "the overall line closes its interval";
    EXPECT_EQ(rows[3].interval, 1u);
    EXPECT_EQ(rows[4].conn, 3u);
    EXPECT_EQ(rows[4].interval, 0u);
    const std::vector<vxc::BackendMonitorRow> backends = collector_->backend_monitor();
    ASSERT_EQ(backends.size(), 2u);
    EXPECT_EQ(backends[0].interval, 0u);
    EXPECT_EQ(backends[1].interval, 1u) << "counted by the overall lines of record 74";
    EXPECT_EQ(backends[1].name, "HTTP_pay|8080");
    EXPECT_EQ(backends[1].cum_count * 100 + backends[1].count * 10 + backends[1].errors, 441);
    EXPECT_DOUBLE_EQ(backends[1].eps, 0.1);
    const std::vector<std::string> malformed = read_lines(dir_ + "/malformed.txt");
    ASSERT_EQ(malformed.size(), 3u) << slurp(dir_ + "/malformed.txt");
    EXPECT_EQ(malformed[0],
              "2 record 74: business transaction id 9 not declared by a record 7 "
              "or the served rules | " +
                  undeclared.substr(0, 200));
    EXPECT_EQ(malformed[2].rfind("2 record 10 belongs on the data connection", 0), 0u);
    expect_summary(
        "as_connections=2 as_bad_opening=1 as_records_74=5 as_overall_lines=2 as_records_53=1 "
        "as_records_52=1 as_gc_reports=1 as_records_75=2 as_malformed=2 undeclared_bt=1 "
        "malformed=3 "
        "records=1");
    EXPECT_NE(summary_value("conn.2").find("autosensor peer="), std::string::npos);
    EXPECT_NE(summary_value("conn.2").find(" records=9 malformed=3 "), std::string::npos);
}

TEST_F(Loopback, DigestBodiesAreTakenByLengthDecodedAndSetBesideRecord74Totals)
{
    using namespace std::string_literals;
    /* The value 60 once: a t-digest of one centroid, a c-digest of bucket 60. */
    const std::string td60 =
        "\x01\0\0\0"
        "\0\0\0\0\0\0\x59\x40"
        "\x01\0\0\0"
        "\0\0\0\0\0\0\x4e\x40"
        "\x01\0\0\0"s;
    const std::string cd60 =
        "\x3c\x18\x1a\x02"
        "\x20\x20\x01\0"
        "\0\0\0\0\0\0\0\0"
        "\x01\0\0\0\0\0\0\0"s +
        std::string("\0\0\0\0\0\0\x4e\x40"s) + "\0\0\0\0\0\0\x4e\x40"s +
        "\0\0\0\0\0\0\x4e\x40\x01"s;
    ASSERT_EQ(td60.size(), 28u);
    ASSERT_EQ(cd60.size(), 49u);
    const std::string h96 = with(k96, ",52", ",28");
    const std::string h96all = with(h96, "/shop/cart", "AllTransactions");
    const std::string h121 = with(with(k121, ",115", ",49"), "000,", "001,");
    const std::string bad_mode = "\x03" + std::string(15, '\0');
    const std::string refused = with(with(k96, "96,1|", "96,9|"), ",52", ",13");
    const std::string lines = kBt5 + "\n" + h96 + "\n" + td60 + "\n" + kBt5 + "\n" + h96all + "\n" +
                              td60 + "\n" + h121 + "\n" + cd60 + "\n" + with(h96, ",28", ",16") +
                              "\n" + bad_mode + "\n" + h96 + "\n" + td60 + kOverall + "\n" +
                              refused + "\nx\n74,garbage\n\n" + kOverall + "\n";
    start(vxc::Options{});
    Client as(port_);
    /* In pieces, so bodies straddle reads. */
    const std::string all = kAsOpening + lines;
    for (size_t at = 0; at < all.size(); at += 97) ASSERT_TRUE(as.send(all.substr(at, 97)));
    ASSERT_TRUE(wait_for_text(dir_, "0001-autosensor.lines", "bytes of digest>\n" + kOverall));
    stop();

    EXPECT_EQ(slurp(find_file(dir_, "0001-autosensor.lines")),
              kAsOpening + kBt5 + "\n" + h96 + "\n<28 bytes of digest>\n" + kBt5 + "\n" + h96all +
                  "\n<28 bytes of digest>\n" + h121 + "\n<49 bytes of digest>\n" +
                  with(h96, ",28", ",16") + "\n<16 bytes of digest>\n" + h96 +
                  "\n<28 bytes of digest, no line feed behind>\n" + kOverall + "\n" + refused +
                  "\n<13 bytes of digest>\n" + kOverall + "\n");
    const std::vector<std::string> tsv = read_lines(dir_ + "/percentiles.tsv");
    ASSERT_EQ(tsv.size(), 4u);
    EXPECT_EQ(tsv[0], vxc::kPercentilesHeader);
    EXPECT_EQ(tsv[1], "1\t96\t\t/shop/cart\t1700000000000\t28\t1\t60\t60\t60\t1\t60\t60\t60");
    EXPECT_EQ(tsv[2], "1\t96\t\tAllTransactions\t1700000000000\t28\t1\t60\t60\t60\t2\t60\t60\t60");
    EXPECT_EQ(tsv[3], "1\t121\t5\t/shop/cart\t1700000000001\t49\t1\t60\t60\t60\t2\t60\t60\t60");
    const std::vector<vxc::PercentileRow> rows = collector_->percentiles();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].series, -1);
    EXPECT_EQ(rows[2].series, 5);
    EXPECT_EQ(rows[2].p99, 60.0);
    EXPECT_EQ(rows[1].exact_n, 2u);
    const std::string malformed = slurp(dir_ + "/malformed.txt");
    EXPECT_NE(malformed.find("1 record 96: t-digest mode 3 is neither 1 nor 2 | " +
                             with(h96, ",28", ",16") + "\n"),
              std::string::npos)
        << malformed;
    EXPECT_NE(malformed.find("1 record 96: no line feed behind the body | " + h96 + "\n"),
              std::string::npos)
        << malformed;
    expect_summary(
        "as_records_74=4 as_overall_lines=2 as_records_96=2 as_records_121=1 "
        "as_digest_malformed=2 as_malformed=1 as_records_other=0 undeclared_bt=2 malformed=5");
}

TEST_F(Loopback, StressOptionsCloseStopReadingAndTurnTheAutoSensorStateOff)
{
    vxc::Options o;
    o.heartbeat_ms = 50;
    o.as_conn_state_zero_after_ms = 300;
    o.as_close_after_ms = 100;
    o.as_stop_reading_after_ms = 200;
    start(o);
    Client ctrl(port_);
    ASSERT_TRUE(ctrl.send(kRequest));
    std::string line;
    ASSERT_TRUE(ctrl.read_line(&line)); /* the reply */
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line,
              "vx_control_req:action=reconnect;heartBeat 0;dataConnState=1;AutosensorConnState=1;");
    do {
        ASSERT_TRUE(ctrl.read_line(&line));
    } while (line.find("AutosensorConnState=1;") != std::string::npos);
    EXPECT_NE(line.find(";dataConnState=1;AutosensorConnState=0;"), std::string::npos) << line;

    Client first(port_);
    ASSERT_TRUE(first.send(kAsOpening));
    EXPECT_TRUE(first.closed_by_peer());
    Client second(port_);
    ASSERT_TRUE(second.send(std::string(kAsOpening) + kOverall + "\n"));
    ASSERT_TRUE(wait_for_text(dir_, "-lite.log", "no longer read"));
    ASSERT_TRUE(second.send(kBt5 + "\n")); /* stays in the socket */
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    stop();
    EXPECT_EQ(slurp(find_file(dir_, "0003-autosensor.lines")), kAsOpening + kOverall + "\n");
    expect_summary("as_closed_by_collector=1 as_unread_connections=1 as_records_74=1");
    EXPECT_NE(summary_value("as_state_zero_heartbeats"), "0");
    EXPECT_NE(summary_value("conn.3").find("state=closed: collector stops"), std::string::npos);
}

}  // namespace
