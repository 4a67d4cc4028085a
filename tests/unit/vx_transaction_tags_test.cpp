/*
 * Transaction tags: values from the query string, request and response
 * headers and fixed text land in the record's per-BT chain, a later value
 * replaces an earlier one, the chain array grows for large BT ids, and the
 * chain becomes one sorted, encoded tag sequence.
 */
#include "http/vx_transaction_tags.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "bt/vx_bt_tags.h"
#include "flowpath/vx_per_thread_data.h"
#include "monitor/vx_monitor_model.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

constexpr int kBT = 5;

class TransactionTags : public testing::Test {
protected:
    void SetUp() override
    {
        app_->VXSys.enableTagsSupport = 1;
        clear_lists();
        td_ = get_free_tls_slot();
        ASSERT_NE(td_, nullptr);
    }
    void TearDown() override
    {
        if (td_->tlMonitorDataModel) resetMonitorCounters(td_->tlMonitorDataModel);
        resetAllThreadLocals(td_, nullptr);
        free_tls_slot(td_);
        clear_lists();
    }
    void clear_lists()
    {
        vx::bt_tags_clear(-1);
        for (int id = 0; id < app_->VXBTMonitor.currentSizeOfBTTagArray; ++id)
            vx::bt_tags_clear(id);
    }

    /* The record's tag sequence of a BT, "" when there is none. */
    std::string seq(int bt)
    {
        BTTagSeqArray* n = get_json_bt_per_thread(td_, bt);
        if (!n) return "";
        std::string s = n->tagSeq;
        free(n->tagSeq);
        free(n);
        return s;
    }
    /* The chain's value of `key`, "(none)" when absent. */
    std::string chain_value(int bt, const char* key)
    {
        VXMonitorDataModel* m = td_->tlMonitorDataModel;
        if (!m || bt >= m->currentSizeOfBTPerThreadArray) return "(none)";
        for (BTTagArray* t = m->btPerThreadArray[bt]; t; t = t->next)
            if (strcmp(t->key, key) == 0) return t->resolvedValue ? t->resolvedValue : "(null)";
        return "(none)";
    }
    void header(const char* name, const char* value, int type, int bt = kBT)
    {
        resolveTransactionTag(td_, S(name), S(value), bt, type);
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{app_->VXSys};
    VXPerThreadData_t* td_ = nullptr;
};

TEST_F(TransactionTags, TagsOffAnswerNoAndResolveNothing)
{
    parse_global_tags(S("h%202%20X-Id"));
    EXPECT_EQ(is_tag_applied_per_bt_or_globally(kBT, 2), 1);
    EXPECT_EQ(is_tag_applied_per_bt_or_globally(kBT, 3), 0);
    app_->VXSys.enableTagsSupport = 0;
    EXPECT_EQ(is_tag_applied_per_bt_or_globally(kBT, 2), 0);
    EXPECT_EQ(is_tag_applied_globally(kBT, 2), 0);
    header("X-Id", "7", 2);
    app_->VXSys.enableTagsSupport = 1;
    EXPECT_EQ(seq(kBT), "");
}

TEST_F(TransactionTags, QueryTagsTakeTheFirstMatchAndStopAtAnItemWithoutEquals)
{
    parse_tags(S("a%201%20a&c%201%20c"), kBT);
    EXPECT_EQ(is_tag_applied_per_bt_or_globally(kBT, 1), 1);
    EXPECT_EQ(is_tag_applied_globally(kBT, 1), 0);
    const struct {
        const char* query;
        const char* seq;
    } cases[] = {
        {"a=1&b&c=2", "{\"a\":\"1\"}"},
        {"c=x%20y&a=2&a=3", "{\"a\":\"2\",\"c\":\"x_y\"}"},
        {"A=1&cc=2", ""},
        {"", ""},
    };
    for (const auto& c : cases) {
        resolveTransactionTag(td_, S(c.query), nullptr, kBT, 1);
        EXPECT_EQ(seq(kBT), c.seq) << c.query;
        resetMonitorCounters(td_->tlMonitorDataModel);
    }
}

TEST_F(TransactionTags, HeaderTagsMatchTheirNamespaceAndNameExactlyAfterDecoding)
{
    parse_global_tags(S("g%202%20X-Req&r%203%20X-Resp"));
    parse_tags(S("b%202%20X-Req"), kBT);
    header("X-Req", "a%20b", 2);
    header("x-req", "lower", 2);
    header("X-Resp", "not-a-response", 2); /* a request header of that name */
    header("X-Resp", "", 3);               /* empty value: no value */
    EXPECT_EQ(chain_value(kBT, "g"), "a b");
    EXPECT_EQ(chain_value(kBT, "b"), "a b");
    EXPECT_EQ(chain_value(kBT, "r"), "(none)");
    header("X-Resp", "ok", 3);
    EXPECT_EQ(chain_value(kBT, "r"), "ok");
    EXPECT_EQ(seq(kBT), "{\"b\":\"a_b\",\"g\":\"a_b\",\"r\":\"ok\"}");
}

TEST_F(TransactionTags, LaterValueReplacesAndValuesAreCutAndEncoded)
{
    parse_global_tags(S("v%202%20X-V"));
    header("X-V", "first", 2);
    header("X-V", "1,2:3\n", 2);
    EXPECT_EQ(seq(kBT), "{\"v\":\"1_2_3\"}");
    const std::string big(300, 'z');
    header("X-V", big.c_str(), 2);
    EXPECT_EQ(chain_value(kBT, "v"), big.substr(0, 254));
    /* One node per key and type, however often it was set. */
    int nodes = 0;
    for (BTTagArray* t = td_->tlMonitorDataModel->btPerThreadArray[kBT]; t; t = t->next) ++nodes;
    EXPECT_EQ(nodes, 1);
}

TEST_F(TransactionTags, InlineTagsOfBothListsAndABtBeyondTheTableTakesGlobalsOnly)
{
    parse_global_tags(S("env%200%20prod"));
    parse_tags(S("team%200%20shop"), kBT);
    resolveInlineTag(td_, kBT);
    EXPECT_EQ(seq(kBT), "{\"env\":\"prod\",\"team\":\"shop\"}");
    const int beyond = app_->VXBTMonitor.currentSizeOfBTTagArray + 7;
    resolveInlineTag(td_, beyond);
    EXPECT_EQ(seq(beyond), "{\"env\":\"prod\"}");
}

TEST_F(TransactionTags, ChainArrayGrowsPastOneDoublingForLargeIds)
{
    parse_global_tags(S("h%202%20X-H"));
    for (int bt : {3, 1000, 70000}) {
        header("X-H", std::to_string(bt).c_str(), 2, bt);
        EXPECT_GT(td_->tlMonitorDataModel->currentSizeOfBTPerThreadArray, bt);
        EXPECT_EQ(seq(bt), "{\"h\":\"" + std::to_string(bt) + "\"}");
    }
    EXPECT_EQ(seq(3), "{\"h\":\"3\"}"); /* kept across growth */
}

TEST_F(TransactionTags, SequenceIsSortedAndHoldsTheFirst128ResolvedPairs)
{
    std::string decl;
    for (int i = 129; i >= 0; --i) /* chain order descends, sorting ascends */
        decl += (decl.empty() ? "" : "&") + ("k" + std::to_string(1000 + i)) + "%202%20H" +
                std::to_string(i);
    parse_global_tags(S(decl.c_str()));
    parse_tags(S("unset%202%20Nobody"), kBT);
    for (int i = 129; i >= 0; --i)
        header(("H" + std::to_string(i)).c_str(), std::to_string(i).c_str(), 2);
    std::string expected = "{";
    for (int i = 2; i < 130; ++i)
        expected += (i == 2 ? "" : ",") + ("\"k" + std::to_string(1000 + i) + "\":\"") +
                    std::to_string(i) + "\"";
    expected += "}";
    EXPECT_EQ(seq(kBT), expected);
    EXPECT_EQ(seq(kBT + 1), "");
}

TEST_F(TransactionTags, DeclaredKeysAreFoundInTheirList)
{
    parse_global_tags(S("g%202%20X"));
    parse_tags(S("p%202%20Y"), kBT);
    EXPECT_EQ(TagExistInGlobalList(S("g")), 1);
    EXPECT_EQ(TagExistInGlobalList(S("p")), 0);
    EXPECT_EQ(TagExistInPatternList(S("p")), 1);
    EXPECT_EQ(TagExistInPatternList(S("g")), 0);
    EXPECT_TRUE(vx_test::logged("Tag p exists in the patten list for btid 5."));
}

TEST_F(TransactionTags, StartFPResolvesQueryTagsOfItsBT)
{
    vx_test::SessionScope session;
    parse_global_tags(S("q%201%20a"));
    auto* td = static_cast<VXPerThreadData_t*>(startFP(
        nullptr, S("/tags/query?b=1&a=x%20y"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
    ASSERT_NE(td, nullptr);
    ASSERT_NE(td->tlBTObj, nullptr);
    const int bt = td->tlBTObj->bt_id;
    ASSERT_GT(bt, 0);
    BTTagSeqArray* n = get_json_bt_per_thread(td, bt);
    ASSERT_NE(n, nullptr);
    EXPECT_STREQ(n->tagSeq, "{\"q\":\"x_y\"}");
    free(n->tagSeq);
    free(n);
    resetMonitorCounters(td->tlMonitorDataModel);
    reset(td);
}

}  // namespace
