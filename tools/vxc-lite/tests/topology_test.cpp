/* Tiers, resources, links and callouts as two data connections tell them. */
#include "topology.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "loopback.h"

namespace {

using namespace vxc_test;

std::string tokens(std::string_view blob)
{
    std::string out;
    for (const vxc::CalloutToken& t : vxc::callout_tokens(blob))
        out += std::string(1, t.kind) + std::to_string(t.seq) + "/" + std::to_string(t.backend_id) +
               "/" + std::to_string(t.duration) +
               (t.query_id ? "/q" + std::to_string(t.query_id) : "") + " ";
    return out;
}

TEST(Callouts, TokensAreFoundAtTokenStartsOnlyAndCutOnesAreLeftOut)
{
    /* Entry and exit of method 1 around an HTTP call that went well, one
     * that failed with status 500, an exception marker, a thread callout, a
     * database call and a token cut by the end of the blob. */
    EXPECT_EQ(tokens("1:77_0_0__9:77_0_3__T1:9:12:1:-:3_9:77_1_12_0___E2:9:5:1:-:20:500_e3_t4_"
                     "T6:11:4:0:42:30::::0:a&#95;b_1:77_1_40_0___T7:9:1"),
              "T1/9/12 E2/9/5 T6/11/4/q42 ");
    EXPECT_EQ(tokens("T1:2:x:4:-:5_Tseq_"), "");
}

TEST(Callouts, OnlyDatabaseCallsCarryTheirQueryId)
{
    const std::pair<const char*, const char*> cases[] = {
        /* The database form, with no query and parameters too; a database
         * call left by an exception. */
        {"T1:9:12:10:7:30::::200:_", "T1/9/12/q7 "}, {"E1:9:12:10:8:30:500_", "E1/9/12/q8 "},
        {"E1:9:12:16:-1:30::::500:a&#58;b&#95;c_", "E1/9/12/q-1 "},
        /* A message queue, an HTTP call left by an exception, a custom call,
         * shapes that are not the database form. */
        {"E1:9:12:27:8:30:500_", "E1/9/12 "}, {"T1:9:12:27:8:30_", "T1/9/12 "},
        {"E1:9:12:1:0:30:500_", "E1/9/12 "}, {"T1:9:12:8:-:30_", "T1/9/12 "},
        {"T1:9:12:10:7:30:::200:_", "T1/9/12 "}, {"T1:9:12:10:x:30::::200:_", "T1/9/12 "},
    };
    for (const auto& [blob, want] : cases) EXPECT_EQ(tokens(blob), want) << blob;
}

TEST_F(Loopback, TiersResourcesLinksAndCalloutsAreWrittenForTheirReaders)
{
    start(vxc::Options{});
    Client front(port_);
    const std::string r91 = "91,HTTP_pay,back,front,web2,pay,web1,shop,NA\n";
    ASSERT_TRUE(front.send(std::string(kOpening) +
                           "5,HTTP_pay.example:8080,9\n7,3,/shop/cart\n"
                           "2,100,5000,77,77.1,3,/shop/cart,,100,-1,55,,0,15,,,\n"
                           "3,100,T6:11:4:0:42:30::::0:x_\n"
                           "4,100,200,10,0,40,3,0,,0,-1,9:77_0_3__T1:9:12:1:-:3_"
                           "E2:9:5:1:-:20:500_1:77_1_40_0___\n" +
                           r91 + r91 + "91,HTTP_pay,back2,front,web2,pay,web1,shop,NA\n" +
                           "26,1,http://pay.example/api,v2\n"));
    ASSERT_TRUE(wait_for_text(dir_, "0001-data.lines", "26,1,"));
    Client back(port_);
    ASSERT_TRUE(back.send(std::string(kOpening) +
                          "2,200:100:100,6000,5,77.3.1,3,/pay,,200,-1,55,,0,15,"
                          "00000000000000000000000000000064,64,01\n"
                          "2,300F:100F:999F,6001,5,77.4.1,3,/pay,,300,-1,55,,0,15,,,\n"
                          "2,400:100:500,6002,5,78.2.1,3,/pay,,400,-1,55,,0,15,,,\n"));
    ASSERT_TRUE(wait_for_text(dir_, "0002-data.lines", "2,400:"));
    /* The caller's record 2 may come after its callee's. */
    ASSERT_TRUE(front.send("2,500,5001,78,78.1,3,/shop/late?a=1,2,,500,-1,55,,0,15,,,\n"));
    ASSERT_TRUE(wait_for_text(dir_, "0001-data.lines", "2,500,"));
    stop();

    EXPECT_EQ(slurp(dir_ + "/links.tsv"), std::string(vxc::kLinksHeader) +
                                              "\n2\t200\t100\t100\t0\t77.3\t1\t/shop/cart\n"
                                              "2\t300\t100\t999\t1\t77.4\t-1\t-\n"
                                              "2\t400\t100\t500\t0\t78.2\t1\t/shop/late?a=1,2\n");
    const std::vector<vxc::LinkRow> links = collector_->links();
    ASSERT_EQ(links.size(), 3u);
    EXPECT_TRUE(links[1].forced);
    EXPECT_EQ(links[2].caller_conn, 1);

    /* One trace id across the tiers: the callee's record 2 carries it. */
    const std::vector<vxc::TraceRow> traces = collector_->traces();
    ASSERT_EQ(traces.size(), 5u);
    EXPECT_EQ(traces[0].trace_id + traces[0].parent_id + traces[0].flags, "") << "none sent";
    const std::string first_rows =
        std::string(vxc::kTracesHeader) +
        "\n1\t100\t0\t\t\t\n2\t200\t100\t00000000000000000000000000000064\t64\t01\n";
    EXPECT_EQ(slurp(dir_ + "/traces.tsv").substr(0, first_rows.size()), first_rows);

    const std::vector<vxc::TopologyRow> topology = collector_->topology();
    ASSERT_EQ(topology.size(), 3u) << "a repeated caller is still a row";
    EXPECT_EQ(topology[0].caller_backend + topology[0].caller_tier + topology[0].tier +
                  topology[0].caller_server + topology[0].caller_instance + topology[0].server +
                  topology[0].instance,
              "HTTP_paybackfrontweb2payweb1shop");
    EXPECT_EQ(topology[2].caller_tier, "back2");
    const std::vector<vxc::ResourceRow> resources = collector_->resources();
    ASSERT_EQ(resources.size(), 1u);
    EXPECT_EQ(resources[0].id, 1);
    EXPECT_EQ(resources[0].name, "http://pay.example/api,v2");

    EXPECT_EQ(slurp(dir_ + "/callouts.tsv"), std::string(vxc::kCalloutsHeader) +
                                                 "\n1\t100\tT\t6\t11\t-\t4\t42\n"
                                                 "1\t100\tT\t1\t9\tHTTP_pay.example:8080\t12\t0\n"
                                                 "1\t100\tE\t2\t9\tHTTP_pay.example:8080\t5\t0\n");
    EXPECT_EQ(collector_->callouts().at(2).kind, 'E');
    EXPECT_EQ(collector_->callouts().at(0).query_id, 42);
    expect_summary(
        "records_91=3 records_91_repeated=1 records_26=1 chained_flowpaths=3 "
        "chained_unresolved=1 malformed=0");
}

TEST_F(Loopback, QueriesAreRowsPerConnectionAndClashesAreCounted)
{
    start(vxc::Options{});
    const std::string fixed =
        "22,0,1,Unknown\n22,0,2,XA TRANSACTION START\n22,0,3,XA TRANSACTION COMMIT\n"
        "22,0,4,XA TRANSACTION END\n22,0,5,XA TRANSACTION ROLLBACK\n";
    Client a(port_);
    ASSERT_TRUE(a.send(std::string(kOpening) + fixed +
                       "22,100,6,select a&#46;b from t where c=&#039;x&#044;y&#039;\n"
                       "3,100,T1:9:3:10:6:30::::200:_\n"
                       "22,100,6,select 2\n"   /* id 6 again, another text */
                       "22,101,7,Unknown\n"    /* a fixed text under a new id */
                       "22,101,8,select 1,2\n" /* malformed: a raw comma */
                       "22,100,6,select a&#46;b from t where c=&#039;x&#044;y&#039;\n"));
    ASSERT_TRUE(wait_for_text(dir_, "0001-data.lines", "1,2\n22,100,6,"));
    /* Another connection, another session: its ids are its own. */
    Client b(port_);
    ASSERT_TRUE(b.send(std::string(kOpening) + fixed + "22,200,6,select 2\n"));
    ASSERT_TRUE(wait_for_text(dir_, "0002-data.lines", "22,200,6,"));
    stop();

    const std::vector<vxc::QueryRow> q = collector_->queries();
    ASSERT_EQ(q.size(), 15u) << "every record 22 that parsed is a row";
    EXPECT_EQ(q[5].conn, 1u);
    EXPECT_EQ(q[5].fpi, 100);
    EXPECT_EQ(q[5].id, 6);
    EXPECT_EQ(q[5].text, "select a&#46;b from t where c=&#039;x&#044;y&#039;");
    EXPECT_EQ(q[5].decoded, "select a.b from t where c='x,y'");
    EXPECT_EQ(q[14].conn, 2u);
    EXPECT_EQ(q[14].text, "select 2");
    EXPECT_EQ(collector_->callouts().at(0).query_id, 6);
    const std::string malformed = slurp(dir_ + "/malformed.txt");
    EXPECT_NE(malformed.find("| 22,100,6,select 2\n"), std::string::npos) << malformed;
    EXPECT_NE(malformed.find("| 22,101,7,Unknown\n"), std::string::npos) << malformed;
    expect_summary("query_ids_reused=1 query_texts_reused=1 malformed=3 record.22=15");
}

}  // namespace
