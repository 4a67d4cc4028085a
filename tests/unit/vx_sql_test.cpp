/*
 * SQL calls: the query text encoders (arbitrary bytes are the fuzz
 * target's), the query dictionary and its record 22, the depth of nested
 * database calls, and the DBIPName keyword.
 */
#include "diag/vx_sql_processor.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/vx_instance.h"
#include "core/vx_encode.h"
#include "flowpath/vx_per_thread_data.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

std::string escaped(const std::string& in, int len = 16384)
{
    std::vector<char> sb(static_cast<size_t>(len));
    escapeHTML(sb.data(), len, S(in.c_str()), 0);
    return sb.data();
}

std::string param(const std::string& in)
{
    std::vector<char> sb(in.size() * 6 + 1);
    DBQueryParamEncoding(sb.data(), static_cast<int>(sb.size()), S(in.c_str()));
    return sb.data();
}

TEST(SqlEncoders, TableOfTexts)
{
    struct Case {
        const char* in;
        std::string html, par;
    };
    const Case cases[] = {
        {"a,b", "a&#044;b", "a&#044;b"},
        {"say \"hi\" 'x'", "say &#034;hi&#034; &#039;x&#039;", "say&#032;&#034;hi&#034;&#032;&#039;x&#039;"},
        {"l1\nl2\r", "l1&#010;l2&#013;", "l1&#010;l2&#013;"},
        {"a|b&c", "a&#124;b&#038;c", "a&#124;b&#038;c"},
        {"t.c:1^\\", "t&#46;c&#58;1&#094;&#092;", "t&#46;c&#58;1&#094;&#092;"},
        {"x_y\t+", "x_y\t+", "x&#95;y&#9;&#043;"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(escaped(c.in), c.html) << c.in;
        EXPECT_EQ(param(c.in), c.par) << c.in;
    }
    /* A long text is cut inside the buffer, never mid-entity past it. */
    const std::string longText(20000, ',');
    const std::string cut = escaped(longText);
    EXPECT_LT(cut.size(), 16384u);
    EXPECT_EQ(cut.size() % 6, 0u);

    char sb[64];
    decodeurlencoding(sb, S("a%2Cb%4A%3D%ZZ%2"), 64);
    EXPECT_STREQ(sb, "a,b\n=%ZZ%2");
    decodeurlencoding(sb, S("%2C%2C"), 4); /* the second escape crosses the limit */
    EXPECT_STREQ(sb, ",%");
    char nl[] = "a%4Ab\\nc\\rd\r\ne%4D";
    check_and_remove_slash_n(nl);
    EXPECT_STREQ(nl, "abcde");
    encode_n_tag(sb, sizeof sb, S("a\nb"));
    EXPECT_STREQ(sb, "a%Ab");
    char* d = decode_fun(S("k%3Dv%7Cw%3"));
    EXPECT_STREQ(d, "k=v|w%3");
    free(d);
}

class SqlQueries : public testing::Test {
protected:
    void SetUp() override
    {
        app_ = vx_test::agent();
        td_ = get_free_tls_slot();
        ASSERT_NE(td_, nullptr);
        td_->flowpathInstance = 777;
    }
    void TearDown() override
    {
        free(td_->tlSQLObj.DBQueryParam);
        td_->tlSQLObj = sqlProp{};
        free_tls_slot(td_);
    }
    long long call(const char* q, long long start = 10, const char* param = nullptr)
    {
        dbMethodEntry(td_, start, S(q), S("QuortDB"), S(param));
        return td_->tlSQLObj.sqlId;
    }
    void leave()
    {
        --td_->tlSQLObj.DBCallDepth;
        if (td_->tlSQLObj.DBCallDepth == 0) td_->tlSQLObj.sqlId = 0;
    }
    VXProxyInstance_t* app_ = nullptr;
    VXPerThreadData_t* td_ = nullptr;
    RecordSink sink_;
};

TEST_F(SqlQueries, NestedCallsKeepTheOuterQueryAndStart)
{
    SessionScope session;
    app_->VXSys.enableDBQueryParamValues = 1;
    const long long outer = call("outer", 5, "p1");
    EXPECT_NE(call("inner", 9, "p2"), -1);
    EXPECT_EQ(td_->tlSQLObj.DBCallDepth, 2);
    EXPECT_EQ(td_->tlSQLObj.sqlId, outer);
    EXPECT_EQ(td_->tlSQLObj.startTime, 5);
    EXPECT_STREQ(td_->tlSQLObj.DBQueryParam, "p2");
    leave();
    leave();
    /* A call without a text has no id but still counts in the depth. */
    EXPECT_EQ(call(nullptr), -1);
    EXPECT_EQ(td_->tlSQLObj.DBCallDepth, 1);
    app_->VXSys.enableDBQueryParamValues = 0;
}

TEST_F(SqlQueries, ManyThreadsOneTextOneIdOneRecord)
{
    SessionScope session;
    const int kThreads = 8;
    std::vector<long long> ids(kThreads * 2);
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.emplace_back([&, t] {
            for (int k = 0; k < 2; ++k)
                ids[t * 2 + k] = dumpSQLQuery(nullptr, nullptr, S(k ? "update t set v=?" : "select * from t"));
        });
    for (auto& t : ts) t.join();
    std::set<long long> byText[2];
    for (int i = 0; i < kThreads * 2; ++i) byText[i % 2].insert(ids[i]);
    EXPECT_EQ(byText[0].size(), 1u);
    EXPECT_EQ(byText[1].size(), 1u);
    EXPECT_NE(*byText[0].begin(), *byText[1].begin());
    EXPECT_EQ(sink_.of_type(22).size(), 2u);  /* fixed ones come with a method entry */
}

TEST_F(SqlQueries, SessionEndForgetsTextsAndDBIPName)
{
    {
        SessionScope session;
        const struct {
            const char* value;
            const char* name;
        } cases[] = {{"X", "SQL_X"}, {"-", "DB_SQLDB"}, {"NA", "DB_SQLDB"}, {"", "DB_SQLDB"}};
        for (const auto& c : cases) {
            setDBIPName(S(c.value), S("DBIPName"), 0);
            EXPECT_STREQ(app_->VXSQLProcessor.DBIPName, c.name) << c.value;
        }
        setDBIPName(S("ora"), S("DBIPName"), 0);
        EXPECT_EQ(call("q1"), 6);
        leave();
    }
    free_preparedQueryIDLookup(); /* what the end of a session runs */
    EXPECT_STREQ(app_->VXSQLProcessor.DBIPName, "DB_SQLDB");
    SessionScope again;
    sink_.clear();
    EXPECT_EQ(call("q2"), 6);
    leave();
    EXPECT_EQ(sink_.of_type(22).size(), 6u);
}

}  // namespace
