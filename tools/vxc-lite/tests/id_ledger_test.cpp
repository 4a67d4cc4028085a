/* Ids a data connection declares and uses: which ones a record uses, and
 * the uses the collector counts because no record declared them before. */
#include "id_ledger.h"

#include <gtest/gtest.h>

#include <string>

#include "loopback.h"

namespace {

using namespace vxc_test;

std::string uses(const std::string& line)
{
    vxc::Record r;
    std::string error;
    if (vxc::parse_record(line, &r, &error) != 0) return "refused: " + error;
    std::string out;
    for (const vxc::IdRef& u : vxc::id_uses(r))
        out += std::to_string(u.table) + ":" + std::to_string(u.id) + " ";
    return out;
}

/* Entry of method 9, a database call to backend 9 with query 7, an HTTP
 * call to backend 11 with resource 4, an exception marker, the exit. */
const std::string kBlob = "9:77_0_3__T1:9:12:10:7:30::::200:_T2:11:4:1:-:5:4_e3_9:77_1_40_0___";

TEST(IdLedger, RecordsUseTheIdsTheirFormsCarryAndNoneForNone)
{
    const std::pair<std::string, const char*> cases[] = {
        {"4,100,200,10,0,40,3,0,,0,-1," + kBlob, "7:3 5:9 5:9 5:11 5:9 22:7 26:4 "},
        /* Cut tokens, an async entry, exit without CPU, failed HTTP calls
         * with and without a resource, a call without query or resource. */
        {"3,100,2:5:1:/a_0_1__3:5_1_2____E1:9:5:1:-:20:500:6_E2:9:5:1:0:20:500_"
         "T3:9:1:10:-1:30::::200:_T4:9:1:1:-:5:0_4:5_0_",
         "5:2 5:3 5:9 5:9 5:9 5:9 26:6 "},
        /* Record 38: method 0 and text ids -1 stand for none. */
        {"38,100,5,9,4,-1,-1,1,-1,3,12,2,-1,at x", "5:9 32:1 34:3 35:2 "},
        {"38,100,5,0,0,-1,-1,-1,-1,-1,-1,-1,-1,", ""},
        {"13,100,200,|3:<v>|4:5", "6:3 6:4 6:5 "},
        {"2,100,5000,77,77.1,3,/shop/cart,,100,-1,55,,0,15,,,", "7:3 "},
        {"22,0,7,select 1", ""},
    };
    for (const auto& [line, want] : cases) EXPECT_EQ(uses(line), want) << line;
}

TEST_F(Loopback, UsesBeforeTheirDeclarationOnTheSameConnectionAreCounted)
{
    start(vxc::Options{});
    const std::string use = "4,100,200,10,0,40,3,0,,0,-1," + kBlob +
                            "\n38,100,5,9,4,-1,-1,1,-1,-1,12,2,-1,at x\n12,100,3:<v>|4:5\n";
    const std::string declare =
        "5,Shop.buy,9\n5,JDBC_db,11\n22,0,7,select 1\n26,4,http://pay/api\n32,1,Error\n"
        "35,2,boom\n6,Host,3\n6,X,4\n6,Y,5\n7,3,/shop\n";
    Client a(port_);
    ASSERT_TRUE(a.send(std::string(kOpening) + use + declare + use + "10,\n"));
    ASSERT_TRUE(wait_for_text(dir_, "0001-data.lines", "\n10,\n"));
    /* What the first connection declared is unknown on the second, except
     * a business transaction, which the run knows, and except in what the
     * first left unsent, ahead of the second's record 99. */
    Client b(port_);
    ASSERT_TRUE(b.send(std::string(kOpening) + use + "99,NewConnection,FPGVersion:1.0\n" + use +
                       "10,\n"));
    ASSERT_TRUE(wait_for_text(dir_, "0002-data.lines", "\n10,\n"));
    stop();

    expect_summary(
        "undeclared_methods=10 undeclared_queries=2 undeclared_resources=2 "
        "undeclared_exception_texts=4 undeclared_headers=6 undeclared_bt=1 malformed=1 "
        "leftover_records=3");
    const std::vector<std::string> lines = read_lines(dir_ + "/undeclared.txt");
    size_t first = 0;
    for (const std::string& l : lines) first += l.rfind("1 ", 0) == 0;
    EXPECT_EQ(first, 12u) << "uses after the declarations are not counted";
    EXPECT_EQ(lines.size(), 24u);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "1 record 4: method id 9 not declared by a record 5 of this connection | " +
                            use.substr(0, use.find('\n')));
}

}  // namespace
