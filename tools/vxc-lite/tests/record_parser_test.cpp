#include "record_parser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "exceptions.h"
#include "http_headers.h"
#include "loopback.h"
#include "queries.h"

namespace {

struct Collected {
    std::vector<std::string> lines;
    std::vector<size_t> overlong;
};

void feed(vxc::LineSplitter& sp, Collected& out, std::string_view bytes)
{
    sp.feed(
        bytes.data(), bytes.size(), [&](std::string_view l) { out.lines.emplace_back(l); },
        [&](size_t seen) { out.overlong.push_back(seen); });
}

int parse(std::string_view line, std::string* error = nullptr, vxc::Record* out = nullptr)
{
    std::string e;
    const int rc = vxc::parse_record(line, out, &e);
    if (error) *error = e;
    return rc;
}

const char* const kGoodRecords[] = {
    "32,1,java.io.IOException",
    "33,2,-",
    "35,7,a, b, and c",
    "38,123456789,7250,42,0,-1,-1,1,1,1,-1,-1,-1,",
    "38,123456789,7250,0,9,-1,-1,-1,2,3,17,4,5,at a.B(B.java:3),x|at c.D",
    "2,123456789,5000,77,77.1,3,/shop/cart,,123456789,000000000000000000077,55,,0,15,,,",
    "2,501F:111F:222F,5000,77,7.3.1,3,/a?b=1,,501,000000000000000000077,55,,0,15,,,",
    "2,123456789,5000,77,77.1,3,/shop/cart,,123456789,000000000000000000077,55,,0,15,"
    "4bf92f3577b34da6a3ce929d0e0e4736,00f067aa0ba902b7,01",
    "2,123456789,5000,77,77.1,3,/list?a=1,2,,123456789,-1,55,,0,15,,,",
    "3,123456789,5:0_0_0__",
    "3,123456789F,5:0_0_0__",
    "4,123456789,200,10,250000,40,3,0,,0,-1,5:0_0_0__5:0_1_0_250000___",
    "4,99,-99,10,0,0,3,0,,0,",
    "4,123456789F,200,10,250000,40,3,0,,0,5:0_0_0__5:0_1_0_250000___",
    "5,com.shop.Cart.add,17",
    "5,com.shop.Cart.add(I;Ljava/lang/String;)V,17",
    "7,3,/shop/cart",
    "10,",
    "19,123456789,2:17:1000:1:1:<a,b>|",
    "99,NewConnection,FPGVersion:1.0",
    "100,123456789,entered 17",
    "100:at main (app.c:10)",
    "22,0,1,Unknown",
    "22,0,5,XA TRANSACTION ROLLBACK",
    "22,123456789,6,select a&#46;b&#044; c_d from t where x&#58;=&#039;a&#124;b&#039;",
    "22,0,7,&#034;&#038;&#092;&#094;&#010;&#013;",
    "2,501:111:222,5000,77,9.4.1,3,/a,,501,000000000000000000077,55,,0,15,,,",
    "91,HTTP_api&#95;host,front,back,web1,shop,app1,pay,NA",
    "91,,,,,,,,NA",
    "26,3,http://pay/api?a=1,2",
    "26,-1,",
    "6,Host,4",
    "6,,5",
    "6,a,b,11",
    "12,123456789,4:<a%2Eb>|9:<*/*>",
    "12,123456789,|9:<*/*>|10:11",
    "12,123456789,",
    "12,123456789,4:<a>b<>",
    "13,123456789,404,4:<edge 1%2E2>|10:11",
    "13,123456789,-1,",
};

TEST(RecordParser, GoldenRecordsOfTheAgentAreAccepted)
{
    for (const char* line : kGoodRecords) {
        std::string error;
        EXPECT_EQ(parse(line, &error), 0) << line << ": " << error;
    }
    vxc::Record r;
    ASSERT_EQ(parse("4,123456789,200,10,250000,40,3,0,,0,-1,5:0_0_0__", nullptr, &r), 0);
    EXPECT_EQ(r.number, 4);
    ASSERT_EQ(r.fields.size(), 11u);
    EXPECT_EQ(r.fields[0], "123456789");
    EXPECT_EQ(r.fields[7], "");
    EXPECT_EQ(r.fields[10], "5:0_0_0__");
    ASSERT_EQ(parse("100:at main", nullptr, &r), 0);
    EXPECT_TRUE(r.colon_form);
    ASSERT_EQ(r.fields.size(), 1u);
    EXPECT_EQ(r.fields[0], "at main");
}

TEST(RecordParser, MalformedRecordsAreReportedWithAReason)
{
    const char* const bad[] = {
        "",
        "32,0,java.io.IOException", /* ids start at 1 */
        "34,3,",
        "36,07,x",
        "38,123456789,7250,42,0,-1,-1,1,1,1,-1,-1", /* 13 fields */
        "38,123456789,7250,42,0,-2,-1,1,1,1,-1,-1,-1,",
        "38,123456789,7250,42,0,-1,-1,0,1,1,-1,-1,-1,", /* no id 0 */
        "38,123456789,7250,42,0,-1,-1,1,1,1,0,-1,-1,",  /* a line of 0 is -1 */
        "38,123456789,7250,-3,0,-1,-1,1,1,1,-1,-1,-1,",
        "2",
        "x2,1,2",
        "42,something",                                          /* not in the catalogue */
        "74,1,2:3|4",                                            /* auto-sensor connection */
        "2,123456789,5000,77,77.1,3,/shop/cart,,1,2,55,,0,15,,", /* 16 fields */
        "2,12x,5000,77,77.1,3,/shop/cart,,123456789,2,55,,0,15,,,",
        "2,123456789,5000,77,77.2,3,/shop/cart,,123456789,2,55,,0,15,,,",
        "2,123456789,5000,77,77.1,3,/shop/cart,,123456789,2,55,x,0,15,,,",
        "2,1:2,5000,77,77.1,3,/shop/cart,,123456789,2,55,,0,15,,,",
        "2,501F:111:222F,5000,77,7.3.1,3,/a,,501,2,55,,0,15,,,", /* F on two of three */
        "2,501:0:222,5000,77,7.3.1,3,/a,,501,2,55,,0,15,,,",     /* no first: no triple */
        "2,0501,5000,77,77.1,3,/a,,501,2,55,,0,15,,,",
        "2,123456789,5000,77,78.1,3,/shop/cart,,123456789,2,55,,0,15,,,", /* not the thread */
        "91,HTTP_x,front,back,web1,shop,app1,pay",
        "91,HTTP_x,front,back,web1,shop,app1,pay,NA,NA",
        "91,HTTP_x,front,back,web1,shop,app1,pay,na",
        "26,03,/a",
        "26,x,/a",
        "26,3",
        "3,123456789",
        "3,abc,5:0_0_0__",
        "4,123456789,200,10,250000,40,3,0,,0", /* 10 fields */
        "4,123456789,200,10,250000,40,3,0,x,0,-1,blob",
        "4,123456789,ok,10,250000,40,3,0,,0,-1,blob",
        "4,1,2,3,4,5,6,7,,8,9,10,11", /* 13 fields */
        "5,name,id",
        "5,17",
        "7,x,name",
        "7,3",
        "10,,",
        "10,x",
        "19,123456789,2:17:1000:1:1:abc",
        "19,abc,2:17:1000:1:1:<a>|",
        "99,NewConnection",
        "99,Connection,FPGVersion:1.0",
        "99,NewConnection,1.0",
        "100,abc,text",
        "5:not the colon form",
        "12345,too many digits",
        "6,Host",
        "6,Host,0",
        "6,Host,x",
        "12,123456789",
        "12,123456789,4:<a>,5:<b>", /* a raw comma: values come escaped */
        "12,123456789,4:<a",        /* cut inside an item, but not at 2047 bytes */
        "12,123456789,4:<a>||5:<b>",
        "12,123456789,x:<a>",
        "12,123456789,4:07",
        "12,123456789,4",
        "12,-5,4:<a>",
        "13,123456789,4:<a>",
        "13,123456789,20x,4:<a>",
        /* A comma travels as &#044;, a point as &#46;, and so on. */
        "22,7,6,select a,b", "22,7,6,select a.b", "22,7,6,a:b", "22,7,6,a|b", "22,7,6,a'b",
        "22,7,6,a\\b", "22,7,6,a^b", "22,7,6,a\"b", "22,7,6,a\rb",
        /* An ampersand starts an entity of the table only; "_" stays raw. */
        "22,7,6,a & b", "22,7,6,a&#95;b", "22,7,6,a&#044b", "22,7,6,a&#44;b", "22,7,6,x&#0",
        "22,7,6,select 1...", /* only a cut line ends in "..." */
        "22,7,6,", "22,7,0,x", "22,-1,6,x", "22,7,06,x", "22,7F,6,x", "22,7,6",
        /* The fixed queries have flowpath 0 and their own texts. */
        "22,3,1,Unknown", "22,0,2,XA TRANSACTION BEGIN", "22,0,5,xa transaction rollback",
        "22,0,4,Unknown",
    };
    for (const char* line : bad) {
        std::string error;
        EXPECT_EQ(parse(line, &error), -1) << "accepted: \"" << line << "\"";
        EXPECT_FALSE(error.empty()) << line;
    }
}

TEST(RecordParser, OnlyA65535ByteQueryRecordIsCutAndItMayEndInsideAnEntity)
{
    /* "22,7,6," and a text to make a line of `len` bytes ending in `tail`. */
    auto line = [](size_t len, const std::string& tail) {
        return "22,7,6," + std::string(len - 7 - tail.size(), 'q') + tail;
    };
    const struct {
        size_t len;
        const char* tail;
        int rc;
    } cases[] = {
        {65535, "...", 0},     {65535, "&#04...", 0}, {65535, "&...", 0},  {65535, "&#044;...", 0},
        {65535, "&#x...", -1}, {65535, "qqq", -1},    {65531, "&#46;", 0}, {65531, "...", -1},
        {65532, "q", -1},      {65534, "...", -1},    {65536, "...", -1},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_EQ(parse(line(c.len, c.tail), &error), c.rc)
            << c.len << " " << c.tail << ": " << error;
    }
    vxc::Record r;
    vxc::QueryRecord q;
    ASSERT_EQ(parse(line(65535, "..."), nullptr, &r), 0);
    ASSERT_EQ(vxc::parse_query_record(r.fields, &q, nullptr), 0);
    EXPECT_TRUE(q.cut);
    EXPECT_EQ(q.text.size(), 65535u - 7);
}

TEST(RecordParser, QueryRowsKeepTheTextAndDecodeItsEntities)
{
    vxc::Record r;
    vxc::QueryRecord q;
    ASSERT_EQ(parse("22,77,6,a&#46;b&#044;c&#58;&#124;\td_e &#038;#95;", nullptr, &r), 0);
    ASSERT_EQ(vxc::parse_query_record(r.fields, &q, nullptr), 0);
    EXPECT_EQ(vxc::query_row(4, q),
              "4\t77\t6\ta&#46;b&#044;c&#58;&#124; d_e &#038;#95;\ta.b,c:| d_e &#95;");
    const std::pair<const char*, const char*> decoded[] = {
        {"&#010;&#013;&#034;&#039;&#092;&#094;", "\n\r\"'\\^"},
        {"&#9;&#032;&#043;&#95;", "\t +_"},
        {"&#0;&#256;&#1234;&#;&#12&#4", "&#0;&#256;&#1234;&#;&#12&#4"}, /* left alone */
    };
    for (const auto& [in, out] : decoded) EXPECT_EQ(vxc::decode_entities(in), out) << in;
}

TEST(RecordParser, CapturedHeadersResolveThroughRecord6AndOnlyA2047ByteTextMayEndCut)
{
    const std::map<long long, std::string> ids{{4, "Host"}, {10, "X-User"}, {11, "bob"}};
    const std::vector<std::string> rep{"77", "404", "|4:<a%2Eb>|10:11|12:<x>"};
    EXPECT_EQ(vxc::header_rows(3, 13, rep, ids),
              (std::vector<std::string>{"3\t77\trep\t404\t4\tHost\t-\ta%2Eb",
                                        "3\t77\trep\t404\t10\tX-User\t11\tbob",
                                        "3\t77\trep\t404\t12\t-\t-\tx"}));
    EXPECT_EQ(vxc::header_rows(3, 12, {"77", "4:<tab\there>"}, ids),
              (std::vector<std::string>{"3\t77\treq\t-\t4\tHost\t-\ttab here"}));

    /* The agent stops at 2047 bytes wherever an item stands. */
    std::vector<vxc::CaptureItem> items;
    std::string error;
    for (const char* tail : {"|5:<xx", "|5:", "|5", "|", "|5:1"}) {
        std::string text = "4:<" + std::string(2047 - 4 - strlen(tail), 'v') + ">" + tail;
        ASSERT_EQ(text.size(), 2047u);
        EXPECT_EQ(vxc::parse_capture_text(text, &items, &error), 0) << tail << ": " << error;
        EXPECT_EQ(items.size(), std::string(tail) == "|5:1" ? 2u : 1u) << tail;
        text.pop_back();
        if (std::string(tail) != "|") {
            EXPECT_EQ(vxc::parse_capture_text(text, &items, &error), -1) << "cut below 2047: " << tail;
        }
    }
    EXPECT_EQ(vxc::parse_capture_text(std::string(2048, '1'), &items, &error), -1);
    EXPECT_EQ(vxc::parse_capture_text("|5:<a|b>", &items, &error), -1);
}

TEST(RecordParser, ExceptionRowsResolveTheirTextsThroughRecords32To36)
{
    vxc::ExceptionTexts texts;
    vxc::Record r;
    for (const char* meta : {"32,1,java.io.IOException", "33,1,-", "34,1,read", "35,2,a, b\tc"}) {
        ASSERT_EQ(parse(meta, nullptr, &r), 0) << meta;
        EXPECT_TRUE(texts.add(r.number, std::stoll(r.fields[0]), vxc::join(r.fields, 1, r.fields.size()), 10));
    }
    ASSERT_EQ(parse("38,77,7250,42,3,-1,-1,1,1,1,12,2,9,at a.B(B.java:3),x|at c.D", nullptr, &r), 0);
    EXPECT_EQ(vxc::exception_row(4, r.fields, texts),
              "4\t77\t7250\t42\t3\tjava.io.IOException\t-\tread\t12\ta, b c\t#9\tat a.B(B.java:3),x|at c.D");
    ASSERT_EQ(parse("38,77,7250,42,0,-1,-1,-1,1,1,-1,-1,-1,", nullptr, &r), 0);
    EXPECT_EQ(vxc::exception_row(4, r.fields, texts), "4\t77\t7250\t42\t0\t-\t-\tread\t-1\t-\t-\t");
    EXPECT_FALSE(texts.add(32, 5, "more", 1)); /* the table is full */
}

TEST(LineSplitter, LinesStraddlingReadsComeOutWholeWithoutTheirNulBytes)
{
    using namespace std::string_literals;
    const std::string stream =
        "\0\0vx_data_msg_req:appName=shop\n\n\n99,NewConnection,FPGVersion:1.0\n7,\0"
        "3,/shop/cart\n\0\n3,5,5:0_0_0__\n"s;
    const std::vector<std::string> expected = {"vx_data_msg_req:appName=shop",
                                               "",
                                               "",
                                               "99,NewConnection,FPGVersion:1.0",
                                               "7,3,/shop/cart",
                                               "",
                                               "3,5,5:0_0_0__"};
    /* Every cut point in two reads, and one byte a read. */
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        vxc::LineSplitter sp(64);
        Collected got;
        feed(sp, got, std::string_view(stream).substr(0, cut));
        feed(sp, got, std::string_view(stream).substr(cut));
        EXPECT_EQ(got.lines, expected) << "cut at " << cut;
        EXPECT_EQ(sp.pending(), 0u);
        EXPECT_EQ(sp.nul_bytes(), 4u);
    }
    vxc::LineSplitter sp(64);
    Collected got;
    for (char c : stream) feed(sp, got, std::string_view(&c, 1));
    EXPECT_EQ(got.lines, expected);
    EXPECT_EQ(sp.nul_bytes(), 4u);

    /* An unfinished line stays pending, not delivered. */
    vxc::LineSplitter half(64);
    Collected h;
    feed(half, h, "10,\n7,3,/sho");
    EXPECT_EQ(h.lines, std::vector<std::string>{"10,"});
    EXPECT_EQ(half.pending(), 8u);
}

/* Lines and bodies in arrival order: "L:<line>", "B:<body>" or "B!<body>"
 * for a body without its line feed. A line beginning "body " announces a
 * body of the length it names. */
std::vector<std::string> split_with_bodies(vxc::LineSplitter& sp,
                                           const std::vector<std::string_view>& reads)
{
    std::vector<std::string> got;
    for (std::string_view r : reads)
        sp.feed(
            r.data(), r.size(),
            [&](std::string_view l) {
                got.push_back("L:" + std::string(l));
                if (l.substr(0, 5) == "body ") {
                    EXPECT_EQ(sp.take_raw(std::stoul(std::string(l.substr(5)))), 0);
                }
            },
            [](size_t) {},
            [&](std::string_view b, bool lf) {
                got.push_back((lf ? "B:" : "B!") + std::string(b));
            });
    return got;
}

TEST(LineSplitter, BodiesAfterTheirHeadsAreTakenWholeWhateverBytesTheyHold)
{
    using namespace std::string_literals;
    const std::string stream = "body 7\na\nb\0\0c\n\n\0next\nbody 0\n\nlast\n"s;
    const std::vector<std::string> expected = {"L:body 7", "B:a\nb\0\0c\n"s, "L:next", "L:body 0",
                                               "B:",       "L:last"};
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        for (size_t cut2 = cut; cut2 <= stream.size(); cut2 += 3) {
            vxc::LineSplitter sp(64);
            const std::string_view s(stream);
            EXPECT_EQ(split_with_bodies(
                          sp, {s.substr(0, cut), s.substr(cut, cut2 - cut), s.substr(cut2)}),
                      expected)
                << "cut at " << cut << " and " << cut2;
            EXPECT_EQ(sp.nul_bytes(), 1u) << "NULs inside a body are data";
            EXPECT_EQ(sp.pending(), 0u);
        }
    }
    /* A body longer than a line may be: the line bound does not apply. */
    vxc::LineSplitter sp(8);
    EXPECT_EQ(split_with_bodies(sp, {"body 20\n" + std::string(20, 'x') + "\n"}),
              (std::vector<std::string>{"L:body 20", "B:" + std::string(20, 'x')}));

    /* While a body or its line feed is awaited, something is pending. */
    vxc::LineSplitter wait(64);
    EXPECT_EQ(split_with_bodies(wait, {"body 2\nab"}), std::vector<std::string>{"L:body 2"});
    EXPECT_NE(wait.pending(), 0u);
}

TEST(LineSplitter, BodiesWithoutTheirLineFeedOrOverTheBoundAreRefused)
{
    vxc::LineSplitter sp(64, 100);
    /* The byte where the line feed belongs begins the next line. */
    EXPECT_EQ(split_with_bodies(sp, {"body 2\nabXnext\n", "body 1\nz"}),
              (std::vector<std::string>{"L:body 2", "B!ab", "L:Xnext", "L:body 1"}));
    EXPECT_EQ(sp.take_raw(1), -1) << "a body is awaited already";
    EXPECT_EQ(split_with_bodies(sp, {"\n"}), std::vector<std::string>{"B:z"});
    EXPECT_EQ(sp.take_raw(101), -1);
    EXPECT_EQ(sp.pending(), 0u);
}

TEST(LineSplitter, OverlongLinesAreDroppedAndTheNextLineSurvives)
{
    vxc::LineSplitter sp(16);
    Collected got;
    const std::string exact(16, 'a');
    feed(sp, got, exact + "\n");
    feed(sp, got, std::string(10, 'b'));
    feed(sp, got, std::string(10, 'b')); /* passes the bound across reads */
    feed(sp, got, std::string(5000, 'b'));
    feed(sp, got, "bbb\n10,\n");
    feed(sp, got, std::string(40, 'c') + "\n7,1,x\n");
    EXPECT_EQ(got.lines, (std::vector<std::string>{exact, "10,", "7,1,x"}));
    ASSERT_EQ(got.overlong.size(), 2u) << "each overlong line is reported once";
    EXPECT_EQ(got.overlong[0], 20u);
    EXPECT_EQ(got.overlong[1], 40u);
    EXPECT_EQ(sp.pending(), 0u);
}

TEST(LineSplitter, BinaryGarbageIsBoundedAndNeverAccepted)
{
    /* A fixed pseudo-random stream: lines come out within the bound, and a
     * line of garbage is never taken for a record. */
    vxc::LineSplitter sp(256);
    unsigned x = 12345;
    std::string chunk;
    size_t lines = 0, accepted = 0, longest = 0;
    for (int round = 0; round < 200; ++round) {
        chunk.clear();
        for (int i = 0; i < 997; ++i) {
            x = x * 1103515245u + 12345u;
            chunk += static_cast<char>((x >> 16) & 0xff);
        }
        sp.feed(
            chunk.data(), chunk.size(),
            [&](std::string_view l) {
                ++lines;
                longest = std::max(longest, l.size());
                EXPECT_EQ(l.find('\0'), std::string_view::npos);
                if (vxc::parse_record(l, nullptr, nullptr) == 0) ++accepted;
            },
            [](size_t) {});
    }
    EXPECT_GT(lines, 100u);
    EXPECT_LE(longest, 256u);
    EXPECT_EQ(accepted, 0u);
    EXPECT_GT(sp.nul_bytes(), 0u);
}

TEST(ControlLines, RequestAndOpeningLinesOfTheAgentAreChecked)
{
    std::string req = vxc_test::kRequest;
    req.pop_back(); /* the line feed */
    EXPECT_EQ(vxc::classify_first_line(req), vxc::FirstLine::ControlRequest);
    vxc::ControlLine c;
    std::string error;
    ASSERT_EQ(vxc::parse_control_line(req, &c, &error), 0) << error;
    EXPECT_EQ(c.head, "vx_ctrl_msg_req");
    EXPECT_EQ(c.fields.size(), 26u) << "the blank behind the last \";\" is no field";
    ASSERT_NE(c.find("tags"), nullptr);
    EXPECT_EQ(*c.find("tags"), "{}");
    EXPECT_EQ(*c.find("connDestination"), "127.0.0.1:7892");
    EXPECT_TRUE(vxc::check_control_request(c).empty());

    std::string no_pid = req;
    no_pid.replace(no_pid.find("pid=4242;"), 9, "");
    ASSERT_EQ(vxc::parse_control_line(no_pid, &c, nullptr), 0);
    auto problems = vxc::check_control_request(c);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_NE(problems[0].find("pid"), std::string::npos);

    std::string bad_type = req;
    bad_type.replace(bad_type.find("requestType=1"), 13, "requestType=x");
    ASSERT_EQ(vxc::parse_control_line(bad_type, &c, nullptr), 0);
    EXPECT_EQ(vxc::check_control_request(c).size(), 1u);

    std::string open = vxc_test::kOpening;
    open.pop_back();
    EXPECT_EQ(vxc::classify_first_line(open), vxc::FirstLine::DataOpening);
    ASSERT_EQ(vxc::parse_control_line(open, &c, nullptr), 0);
    EXPECT_TRUE(vxc::check_data_opening(c).empty());
    EXPECT_EQ(*c.find("agentName"), "shop-1");
    ASSERT_EQ(vxc::parse_control_line("vx_data_msg_req:appName=shop;testIdx=x", &c, nullptr), 0);
    EXPECT_GE(vxc::check_data_opening(c).size(), 10u);

    EXPECT_EQ(vxc::classify_first_line("klv_saas_auth_agent_msg_req:appName=a"),
              vxc::FirstLine::HostedRequest);
    EXPECT_EQ(vxc::classify_first_line("GET / HTTP/1.1"), vxc::FirstLine::Unknown);
    EXPECT_EQ(vxc::classify_first_line("vx_ctrl_msg_req"), vxc::FirstLine::Unknown);
    EXPECT_EQ(vxc::parse_control_line("no head here", &c, &error), -1);
    ASSERT_EQ(vxc::parse_control_line("vx_control_req:action=reconnect;heartBeat 3;", &c, nullptr),
              0);
    ASSERT_EQ(c.fields.size(), 2u);
    EXPECT_EQ(c.fields[1].first, "heartBeat 3");
}

}  // namespace
