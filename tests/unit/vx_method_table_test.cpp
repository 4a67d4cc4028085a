/*
 * The method table: ids and record 5 of the instrumentation profile, backend
 * keys and the backend cap, the entry-point file, and generations made at run
 * time while host threads run transactions on them.
 */
#include "flowpath/vx_method_table.h"

#include <apr_hash.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/vx_instance.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

/* Each test sees the metadata switch on and leaves ids and isRunTime as a new
 * control connection would find them. */
class MethodTable : public testing::Test {
protected:
    void SetUp() override { app->Server.doNotDumpMetaData = 0; }

    static node_t* current() { return vx_test::agent()->methodTable.methodHashMapNode; }
    static methodPropProperties* lookup(const char* name)
    {
        return getMethodPropFromMethodName(S(name), current());
    }
    /* A golden line with the id the table gave filled in. */
    static std::string with_id(const char* golden, int id)
    {
        return vx_test::fill(golden, {{"id", std::to_string(id)}});
    }
    /* The first profile of a session: the stand-in's table is retired first,
     * so that the load starts from no table as after a connection. */
    static void first_load(std::string profile)
    {
        free_methodHashMapNode();
        setMethodHashMapNode(profile.data());
    }
    static void apply_profile(std::string profile) { setMethodHashMapNode(profile.data()); }
    static void apply_entry_file(std::string text) { parseEntryFile(text.data()); }

    VXProxyInstance_t* app = vx_test::agent();

private:
    vx_test::Restore keep_{app->isRunTime, app->methodTable.methodIDGlobal};
};

TEST_F(MethodTable, LinesGiveKeysAndRecordsThenTheDefaultDatabaseAndTheRootFollow)
{
    const struct {
        const char* line;
        const char* key;
        const char* record;
    } kLines[] = {
        {"shop|Cart|add|0|0", "Cart.add", "5,Cart.add,{id}\n"},
        {"Shop.Web|Handler|MoveNext|0|0", "Shop.Web.Handler.MoveNext",
         "5,Shop.Web.Handler.MoveNext,{id}\n"},
        {"|Worker|MoveNext|0|0", "Worker.MoveNext", "5,Worker.MoveNext,{id}\n"},
        {"shop|Catalog||0|0", "Catalog", "5,Catalog,{id}\n"},
        {"shop|Cart|checkout|1|2|1\r", "Cart.checkout", "5,Cart.checkout,{id}\n"},
        {"app|Orders.Repo|find(int id;String name;)List|0|0", "Orders.Repo.find",
         "5,Orders.Repo.find(id;name;)List,{id}\n"},
        /* An argument without a name prints as a blank. */
        {"app|Orders.Repo|count(long;)int|0|0", "Orders.Repo.count",
         "5,Orders.Repo.count( ;)int,{id}\n"},
        /* A return type written with a blank loses its first character. */
        {"app|Orders.Repo|save(Order o;) void|0|0", "Orders.Repo.save",
         "5,Orders.Repo.save(o;)void,{id}\n"},
        {"app|Orders.Repo|ping()|0|0", "Orders.Repo.ping", "5,Orders.Repo.ping,{id}\n"},
    };
    /* Too few separators, a comment, CR and LF lines, garbage, and a line
     * cut at the line size before its separators. */
    const std::string kSkipped = "a|b|c|d\n# shop|Hidden|method|0|0\n\r\n\ngarbage\n\x01\xff|\nx|" +
                                 std::string(3000, 'C') + "|m|0|0\n";
    SessionScope session;
    RecordSink sink;
    int id = app->methodTable.methodIDGlobal;
    std::string profile = kSkipped;
    for (const auto& l : kLines) profile += std::string(l.line) + "\n" + kSkipped;
    first_load(profile);

    auto r5 = sink.of_type(5);
    size_t at = 0;
    for (const auto& l : kLines) {
        SCOPED_TRACE(l.line);
        ASSERT_LT(at, r5.size());
        EXPECT_EQ(r5[at++], with_id(l.record, id));
        ASSERT_NE(lookup(l.key), nullptr);
        EXPECT_EQ(lookup(l.key)->methodId, id++);
    }
    ASSERT_EQ(r5.size(), at + 2);
    EXPECT_EQ(r5[at], with_id("5,DB_SQLDB,{id}\n", id));
    EXPECT_EQ(r5[at + 1], with_id("5,Profiler.Kelvane.BeginRequest,{id}\n", id + 1));
    EXPECT_EQ(apr_hash_count(current()->ptr), at + 2);
    EXPECT_EQ(lookup("DB_SQLDB")->type_, kMethodTypeDatabase);
    EXPECT_EQ(app->methodTable.dbBackendId, id);
    EXPECT_EQ(app->methodTable.DefaultMethod, lookup("Profiler.Kelvane.BeginRequest"));
    EXPECT_EQ(current()->type, 1);
    EXPECT_EQ(current()->next, nullptr) << "a first load makes one generation";

    methodPropProperties* checkout = lookup("Cart.checkout");
    EXPECT_STREQ(checkout->moduleName, "shop");
    EXPECT_EQ(checkout->callOutValue, 1);
    EXPECT_EQ(checkout->isEntryPoint, 2);
    EXPECT_EQ(checkout->isAsyncCall, 1);
    EXPECT_EQ(checkout->instrumentationProp, 1);
    EXPECT_EQ(lookup("Worker.MoveNext")->moduleName, nullptr);
    methodPropProperties* find = lookup("Orders.Repo.find");
    ASSERT_EQ(find->methodArgsListCount, 2u);
    EXPECT_STREQ(find->methodArgList[1].type, "String");
    EXPECT_STREQ(find->methodArgList[1].argName, "name");
}

TEST_F(MethodTable, ChangeMakesAGenerationThatKeepsIdsAndMarksEachMethod)
{
    vx_test::FrozenClock clock(1700000000123LL, 0);
    SessionScope session;
    /* The collector wants no metadata: only a change at run time announces. */
    app->Server.doNotDumpMetaData = 1;
    RecordSink sink;
    first_load("m|A|kept1|0|0\nm|A|kept2|0|0\nm|A|dropped|0|0\nm|A|entry|0|1\n");
    node_t* old = current();
    const int kept1 = lookup("A.kept1")->methodId;
    const int kept2 = lookup("A.kept2")->methodId;
    const int dropped = lookup("A.dropped")->methodId;
    const int root = app->methodTable.DefaultMethod->methodId;
    const int next = app->methodTable.methodIDGlobal;
    EXPECT_EQ(lookup("A.kept1")->usedFlag, 0);

    app->isRunTime = 1;
    apply_profile("m|A|kept1|0|0\nm|B|new1|0|0\nm|A|kept2|0|0\nm|B|new2|0|0\n");
    app->isRunTime = 0;

    node_t* fresh = current();
    ASSERT_NE(fresh, old);
    EXPECT_EQ(fresh->next, old);
    EXPECT_EQ(old->timeStamp, 1700000000123LL);
    EXPECT_EQ(fresh->type, 1);
    const struct {
        const char* name;
        int id, prop;
    } kExpected[] = {{"A.kept1", kept1, 2},
                     {"A.kept2", kept2, 2},
                     {"A.dropped", dropped, 3},
                     {"B.new1", next, 1},
                     {"B.new2", next + 1, 1}};
    for (const auto& e : kExpected) {
        SCOPED_TRACE(e.name);
        methodPropProperties* m = lookup(e.name);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->methodId, e.id);
        EXPECT_EQ(m->instrumentationProp, e.prop);
        EXPECT_EQ(m->generation, fresh);
    }
    EXPECT_NE(lookup("A.entry")->instrumentationProp, 3) << "an entry point is not plain";
    EXPECT_EQ(app->methodTable.methodIDGlobal, next + 2);
    EXPECT_EQ(getMethodPropFromMethodName(S("A.kept1"), old)->instrumentationProp, 1)
        << "the previous generation is left as it was";
    EXPECT_EQ(getMethodPropFromMethodName(S("B.new1"), old), nullptr);
    EXPECT_EQ(app->methodTable.DefaultMethod->generation, fresh);
    EXPECT_EQ(app->methodTable.DefaultMethod->methodId, root);

    const std::vector<std::string> announced = {
        with_id("5,DB_SQLDB,{id}\n", root - 1),
        with_id("5,Profiler.Kelvane.BeginRequest,{id}\n", root), with_id("5,B.new1,{id}\n", next),
        with_id("5,B.new2,{id}\n", next + 1)};
    EXPECT_EQ(sink.of_type(5), announced);
}

TEST_F(MethodTable, KeyIsFormedFromTypeAndCallOutValue)
{
    // clang-format off
    const struct {
        int type, callOutValue;
        const char* name;
        const char* key; /* null: no entry */
    } kCases[] = {
        {2, 10, "orders", "DB_orders"}, {2, 16, "cache", "REDIS_cache"}, {2, 16, "", "DB_REDIS"},
        {2, 99, "raw", "raw"},          {27, 27, "jobs", "MQ_jobs"},     {27, 27, "", "MQ_RABBIT"},
        {27, 3, "plain", "plain"},      {6, 0, "bill", "CUSTOM_bill"},   {6, 0, "", "CUSTOM_"},
        {0, 0, "A.b", "A.b"},           {1, 0, "", nullptr},             {1, 3, nullptr, nullptr}};
    // clang-format on
    SessionScope session;
    RecordSink sink;
    node_t* node = current();
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.name ? c.name : "(null)") + " type " + std::to_string(c.type));
        methodPropProperties* m =
            searchAndUpdateMethodHashMap(S(c.name), node, 0, c.type, c.callOutValue);
        if (!c.key) {
            EXPECT_EQ(m, nullptr);
            continue;
        }
        ASSERT_NE(m, nullptr);
        EXPECT_STREQ(m->methodName, c.key);
        EXPECT_EQ(m->type_, c.type);
        EXPECT_EQ(sink.of_type(5).back(),
                  "5," + std::string(c.key) + "," + std::to_string(m->methodId) + "\n");
        EXPECT_EQ(searchAndUpdateMethodHashMap(S(c.name), node, 0, c.type, c.callOutValue), m);
    }
    EXPECT_EQ(sink.of_type(5).size(), std::size(kCases) - 2) << "one record per new key";
    /* The default database backend is the session's, not a new entry. */
    methodPropProperties* db = searchAndUpdateMethodHashMap(nullptr, node, 0, 2, 10);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(db->methodId, app->methodTable.dbBackendId);
    EXPECT_EQ(app->VXBackendMonitor.backendIDCounter, 0) << "only updateFlag counts";
}

TEST_F(MethodTable, BackendsAreCountedOnceEachAndBeyondMaxIPCountAllBecomeOthers)
{
    SessionScope session;
    ASSERT_EQ(app->VXBackendMonitor.maxIPCount, 32);
    RecordSink sink;
    node_t* node = current();
    /* The first is an HTTP backend: its record carries the escaped name, and
     * its key finds it again with the same id and no second count. */
    methodPropProperties* http =
        searchAndUpdateMethodHashMap(S("api.shop.com:8443"), node, 1, 1, 3);
    ASSERT_NE(http, nullptr);
    EXPECT_STREQ(http->methodName, "HTTP_api&#46;shop&#46;com&#58;8443");
    EXPECT_STREQ(http->mon_methodName, "HTTP_api.shop.com:8443");
    methodPropProperties* again =
        searchAndUpdateMethodHashMap(S("api.shop.com:8443"), node, 1, 1, 3);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again, lookup("HTTP_api.shop.com:8443"));
    EXPECT_EQ(again->methodId, http->methodId);
    EXPECT_EQ(app->VXBackendMonitor.backendIDCounter, 1);
    std::set<int> ids = {http->methodId};
    for (int i = 2; i <= 32; ++i) {
        std::string name = "db-" + std::to_string(i);
        methodPropProperties* m = searchAndUpdateMethodHashMap(S(name.c_str()), node, 1, 2, 10);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->methodName, "DB_" + name);
        ids.insert(m->methodId);
    }
    EXPECT_EQ(ids.size(), 32u);
    EXPECT_EQ(app->VXBackendMonitor.backendIDCounter, 32);

    methodPropProperties* others = searchAndUpdateMethodHashMap(S("db-33"), node, 1, 2, 10);
    ASSERT_NE(others, nullptr);
    EXPECT_STREQ(others->methodName, "Others");
    EXPECT_EQ(ids.count(others->methodId), 0u);
    EXPECT_EQ(lookup("DB_db-33"), nullptr);
    EXPECT_EQ(searchAndUpdateMethodHashMap(S("db-34"), node, 1, 2, 10), others);
    EXPECT_EQ(searchAndUpdateMethodHashMap(S("late.example.com"), node, 1, 1, 3), others);
    EXPECT_EQ(app->VXBackendMonitor.backendIDCounter, 32);
    EXPECT_STREQ(searchAndUpdateMethodHashMap(S("db-5"), node, 1, 2, 10)->methodName, "DB_db-5")
        << "a backend seen before the cap keeps its entry";
    auto r5 = sink.of_type(5);
    ASSERT_EQ(r5.size(), 33u);
    EXPECT_EQ(r5.front(), with_id("5,HTTP_api&#46;shop&#46;com&#58;8443,{id}\n", http->methodId));
    EXPECT_EQ(r5.back(), with_id("5,Others,{id}\n", others->methodId));
}

TEST_F(MethodTable, TypeTextSetsKindSubKindAndFlag)
{
    // clang-format off
    const struct {
        const char* type;
        int type_, callOutValue, flag;
    } kTypes[] = {
        {"HTTP_CALLOUT", 1, 3, 2},     {"SQL_CALLOUT", 2, 10, 2},      {"RABBITMQ_CALLOUT", 27, 27, 2},
        {"REDIS", 2, 16, 2},           {"CUSTOM_LOG", 83, 83, 2},      {"EXCEPTION_CALLOUT", 0, 7, 2},
        {"HTTP_ENTRY", 0, 1, 0},       {"TX_EXIT", 0, 4, 0},           {"ASYNC_CALL", 0, 5, 0},
        {"CUSTOM_ENTRY", 0, 6, 0},     {"NO_SUCH_TYPE", 0, 0, 0}};
    // clang-format on
    SessionScope session;
    std::string file;
    for (const auto& t : kTypes) file += std::string("ep|Calls.") + t.type + "|" + t.type + "|2\n";
    apply_entry_file(file);
    for (const auto& t : kTypes) {
        SCOPED_TRACE(t.type);
        methodPropProperties* m = lookup((std::string("Calls.") + t.type).c_str());
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->type_, t.type_);
        EXPECT_EQ(m->callOutValue, t.callOutValue);
        EXPECT_EQ(m->isEntryPoint, t.flag);
    }
}

TEST_F(MethodTable, ModeCustomCalloutCustomLogAndReload)
{
    SessionScope session;
    first_load("shop|Shop.Cart|add|0|0\npay|Pay.Gateway|refund|0|0\n");
    RecordSink sink;
    const int next = app->methodTable.methodIDGlobal;
    apply_entry_file(
        "shop|Shop.Cart.add|SQL_CALLOUT|0\r\n" /* mode 0: ignored although known */
        "shop|Ghost.Method.run|SQL_CALLOUT|0\n"
        "web|Web.Home.index|HTTP_ENTRY|1\r\n"
        "pay|Pay.Gateway.charge|CUSTOM_CALLOUT:gateway|2\n"
        "pay|Pay.Gateway.refund|CUSTOM_CALLOUT:gateway|2\n"
        "log|Audit.Log.write|CUSTOM_LOG:3|2\n"
        "log|Audit.Log.note|CUSTOM_LOG|2\n"
        "db|Orders.Repo.find(int:id;String)List|SQL_CALLOUT|2\n");

    EXPECT_EQ(lookup("Shop.Cart.add")->isEntryPoint, 0);
    EXPECT_EQ(lookup("Ghost.Method.run"), nullptr);
    EXPECT_EQ(lookup("Web.Home.index")->isEntryPoint, kEntryPointService);

    /* A new custom callout is its own backend with an id of its own; a known
     * method only becomes a callout. */
    methodPropProperties* charge = lookup("Pay.Gateway.charge");
    ASSERT_NE(charge, nullptr);
    EXPECT_EQ(charge->isEntryPoint, kEntryPointCustomCallout);
    EXPECT_STREQ(charge->customCalloutName, "CUSTOM_gateway");
    ASSERT_NE(charge->customCalloutptr, nullptr);
    EXPECT_EQ(charge->customCalloutptr->type_, kMethodTypeCustom);
    EXPECT_EQ(searchAndUpdateMethodHashMap(S("gateway"), current(), 0, 6, 0),
              charge->customCalloutptr);
    EXPECT_EQ(lookup("Pay.Gateway.refund")->isEntryPoint, kEntryPointCallout);
    EXPECT_EQ(lookup("Pay.Gateway.refund")->customCalloutptr, nullptr);

    EXPECT_EQ(getArgValueForCustomLog(S("Audit.Log.write")), 3);
    EXPECT_EQ(getArgValueForCustomLog(S("Audit.Log.note")), 1);
    EXPECT_EQ(getArgValueForCustomLog(S("Audit.Log.none")), -1);

    const std::vector<std::string> announced = {
        with_id("5,Web.Home.index,{id}\n", next),
        with_id("5,Pay.Gateway.charge,{id}\n", next + 1),
        with_id("5,CUSTOM_gateway,{id}\n", next + 2),
        with_id("5,Audit.Log.write,{id}\n", next + 3),
        with_id("5,Audit.Log.note,{id}\n", next + 4),
        with_id("5,Orders.Repo.find(id; ;)List,{id}\n", next + 5)};
    EXPECT_EQ(sink.of_type(5), announced);

    /* Reloaded without the database method: it is no longer a callout. */
    apply_entry_file("log|Audit.Log.write|CUSTOM_LOG:3|2\n");
    EXPECT_EQ(lookup("Orders.Repo.find")->isEntryPoint, 0);
    EXPECT_EQ(lookup("Orders.Repo.find")->callOutValue, 0);
    EXPECT_EQ(lookup("Audit.Log.write")->isEntryPoint, kEntryPointCallout);

    free_methodHashMapNode();
    EXPECT_EQ(getArgValueForCustomLog(S("Audit.Log.write")), 0) << "no table";
}

TEST_F(MethodTable, IsMethodInHashMapAnswersByFullNameOrClass)
{
    EXPECT_EQ(isMethodInHashMap(S("Profiler.Kelvane.BeginRequest")), 0) << "no session";
    SessionScope session;
    /* The last line's key is empty: a name starting with "." is still no class. */
    first_load("shop|Cart|add|0|0\nshop|Cart||0|0\nshop|||0|0\n");
    const struct {
        const char* name;
        int expected;
    } kCases[] = {{"Cart.add", 1}, {"Cart.unknown", 1}, {"Basket.add", 0},
                  {"Basket", 1},   {".add", 0},         {"Cart", 1}};
    for (const auto& c : kCases) EXPECT_EQ(isMethodInHashMap(S(c.name)), c.expected) << c.name;
    app->Server.gettingstopInstrumenatation = 1;
    EXPECT_EQ(isMethodInHashMap(S("Cart.add")), 0) << "a stop is under way";
    app->Server.gettingstopInstrumenatation = 0;
}

/* A record 4 whose tokens are complete: each exit closes the innermost open
 * entry, the root opens first and closes last. Entry "<mid>:<tid>_0_<ms>__",
 * exit "<mid>:<tid>_1_<ms>_<cpu>___" or "<mid>:<tid>_1_<ms>____". */
testing::AssertionResult well_formed(const std::string& line, int root)
{
    if (line.empty() || line.back() != '\n') return testing::AssertionFailure() << line;
    const char* p = line.c_str() + line.rfind(',') + 1;
    std::vector<int> open;
    bool closed = false;
    while (*p != '\n') {
        int mid = 0, event = -1, n = 0;
        long long tid = 0, ms = 0;
        if (closed || sscanf(p, "%d:%lld_%d_%lld%n", &mid, &tid, &event, &ms, &n) != 4)
            return testing::AssertionFailure() << "bad token at '" << p << "' in " << line;
        p += n;
        if (event == 1 && *p == '_')
            for (++p; isdigit(static_cast<unsigned char>(*p)) || *p == '-';) ++p;
        const char* end = event == 0 ? "__" : "___";
        const bool entry = event == 0;
        if ((event != 0 && event != 1) || strncmp(p, end, strlen(end)) != 0 ||
            (entry ? open.empty() && mid != root : open.empty() || open.back() != mid))
            return testing::AssertionFailure() << "token of " << mid << " out of place: " << line;
        p += strlen(end);
        if (entry)
            open.push_back(mid);
        else
            open.pop_back();
        closed = open.empty();
    }
    if (!closed) return testing::AssertionFailure() << "left open: " << line;
    return testing::AssertionSuccess();
}

TEST_F(MethodTable, RunTimeChangesUnderLoadLeaveNoReferenceAndWholeRecords)
{
    static const char* const kMethods[] = {"Load.Worker.parse", "Load.Worker.plan",
                                           "Load.Worker.run", "Load.Worker.store"};
    /* Every profile lists the worker (its "run" only in even rounds) and one
     * name of its own. */
    auto profile = [](int round) {
        std::string p =
            "l|Load.Worker|parse|0|0\nl|Load.Worker|plan|0|0\nl|Load.Worker|store|0|0\n";
        if (round % 2 == 0) p += "l|Load.Worker|run|0|0\n";
        return p + "l|Load.Round|r" + std::to_string(round) + "|0|0\n";
    };
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;          /* run-time changes */
    constexpr int kMinTransactions = 200; /* per host thread */

    SessionScope session;
    app->VXSys.bciInstrSessionPct = 100;
    first_load(profile(0));
    const int root = app->methodTable.DefaultMethod->methodId;
    RecordSink sink;
    std::atomic<int> started{0}, transactions{0}, not_started{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> hosts;
    for (int t = 0; t < kThreads; ++t) {
        hosts.emplace_back([&, t] {
            void* handles[std::size(kMethods)] = {};
            for (int i = 0; !stop.load() || i < kMinTransactions; ++i) {
                auto* td = static_cast<VXPerThreadData_t*>(startFP(
                    nullptr, S("/load"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
                if (!td) {
                    ++not_started;
                    continue;
                }
                if (i == 0) ++started;
                /* The host hands back what the previous call returned. */
                for (size_t j = 0; j < std::size(kMethods); ++j)
                    handles[j] = vxMethodEntry(handles[j], td, S(kMethods[j]), nullptr, nullptr, 0,
                                               nullptr, nullptr, 0, nullptr);
                /* A name no profile lists is made at its first entry, in the
                 * generation current at that moment, while profiles change. */
                const std::string fresh = "Gen.Fresh" + std::to_string(t) + "_" + std::to_string(i);
                vxMethodEntry(nullptr, td, S(fresh.c_str()), nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr);
                vxMethodExit(nullptr, td, S(fresh.c_str()), 0, -1, nullptr, 0, 0, 0, nullptr, 0, nullptr, 0,
                             nullptr);
                for (size_t j = std::size(kMethods); j-- > 0;)
                    vxMethodExit(handles[j], td, S(kMethods[j]), 0, -1, nullptr, 0, 0, 0, nullptr,
                                 0, nullptr, 0, nullptr);
                endFP(td, 200, nullptr, 0, 0, 0, nullptr);
                reset(td);
                ++transactions;
            }
        });
    }
    while (started.load() < kThreads && not_started.load() == 0) std::this_thread::yield();
    app->isRunTime = 1;
    for (int round = 1; round <= kRounds; ++round) apply_profile(profile(round));
    stop = true;
    for (std::thread& h : hosts) h.join();
    app->isRunTime = 0;

    EXPECT_EQ(not_started.load(), 0);
    int generations = 0;
    for (node_t* n = current(); n; n = n->next, ++generations)
        EXPECT_EQ(n->ref_count, 0) << "generation " << generations;
    EXPECT_EQ(generations, kRounds + 1);
    EXPECT_EQ(app->methodTable.DefaultMethod->methodId, root);

    auto r4 = sink.of_type(4);
    EXPECT_EQ(r4.size(), static_cast<size_t>(transactions.load()));
    int bad = 0;
    for (const std::string& line : r4) {
        testing::AssertionResult ok = well_formed(line, root);
        if (!ok && ++bad <= 3) ADD_FAILURE() << ok.message();
    }
    EXPECT_EQ(bad, 0);
}

}  // namespace
