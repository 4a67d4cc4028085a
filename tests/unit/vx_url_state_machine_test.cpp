/* The URL pattern state machine and its header form. */
#include "bt/vx_url_state_machine.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

struct Rule {
    const char* pattern;
    int match_type;
    int mode;
    const char* method;
    int id;
};

struct Lookup {
    const char* url;
    const char* params; /* nullptr: no query string */
    const char* method;
    int want;
};

int len(const char* s)
{
    return s ? static_cast<int>(strlen(s)) : 0;
}

void add_all(vxlbStateMachine* sm, const std::vector<Rule>& rules)
{
    for (const Rule& r : rules) {
        ASSERT_EQ(vxlb_state_machine_add(sm, r.pattern, len(r.pattern), r.method, len(r.method),
                                         r.id, r.match_type, r.mode, 0),
                  0)
            << r.pattern;
    }
}

int get(const vxlbStateMachine* sm, const char* url, const char* params = nullptr,
        const char* method = nullptr)
{
    return vxlb_state_machine_get(sm, url, len(url), params, len(params), method, len(method), 0);
}

void expect_all(const vxlbStateMachine* sm, const std::vector<Lookup>& lookups)
{
    for (const Lookup& l : lookups) {
        EXPECT_EQ(get(sm, l.url, l.params, l.method), l.want)
            << l.url << " ? " << (l.params ? l.params : "(null)") << " "
            << (l.method ? l.method : "");
    }
}

const std::vector<Rule> kRules = {
    {"/a/b", 0, 0, nullptr, 2},    {"/a/c", 1, 0, nullptr, 3}, {"/a/x*/z", 0, 0, nullptr, 4},
    {"/p*u=1*", 0, 1, nullptr, 5}, {"/m*", 0, 2, "POST", 6},   {"/q*k=v*", 0, 3, "GET", 7},
    {"/w*", 0, 0, nullptr, 8},     {"/e*", 1, 0, nullptr, 9},
};

const std::vector<Lookup> kLookups = {
    {"/a/b", nullptr, nullptr, 2},     {"/a/b/c", nullptr, nullptr, -1},
    {"/a/c", nullptr, nullptr, 3},     {"/a/cd", nullptr, nullptr, 3},
    {"/a/c/d/e", nullptr, nullptr, 3}, {"/a/xyz/z", nullptr, nullptr, 4},
    {"/a/x/z", nullptr, nullptr, 4},   {"/a/xy/zz", nullptr, nullptr, -1},
    {"/a/x/z/z", nullptr, nullptr, 4}, {"/p", "u=1", nullptr, 5},
    {"/p", "a=1&u=1", nullptr, 5},     {"/p", "u=2", nullptr, -1},
    {"/p", "", nullptr, -1},           {"/m", nullptr, "POST", 6},
    {"/m", nullptr, "GET", -1},        {"/q", "z=1&k=v&y=2", "GET", 7},
    {"/q", "k=v", "POST", -1},         {"/w", nullptr, nullptr, 8},
    {"/wx", nullptr, nullptr, -1},     {"/e", nullptr, nullptr, 9},
    {"/ex/y", nullptr, nullptr, 9},    {"/zz", nullptr, nullptr, -1},
};

/* The same answers whether the machine starts at one row and grows on
 * every rule or is large enough from the start. */
TEST(UrlStateMachine, RuleTableGivesItsIdsAtAnyStartingSize)
{
    for (int size : {1, 0, 4096}) {
        SCOPED_TRACE(size);
        vxlbStateMachine sm{};
        ASSERT_EQ(vxlb_state_machine_init(&sm, size), 0);
        add_all(&sm, kRules);
        expect_all(&sm, kLookups);
        EXPECT_EQ(vxlb_state_machine_free(&sm), 0);
    }
}

/* A failed attempt behind the star restarts one character after where it
 * began; the precedence between parameter, method and plain URL rules. */
TEST(UrlStateMachine, WildCardBacktracksAndPhasesFallBack)
{
    vxlbStateMachine sm{};
    ASSERT_EQ(vxlb_state_machine_init(&sm, 16), 0);
    add_all(&sm, {
                     {"/s*/a/b", 0, 0, nullptr, 11},
                     {"/r*k=1*", 0, 1, nullptr, 13}, /* exact: lost once the star was used */
                     {"/t*k=1*", 1, 1, nullptr, 14}, /* prefix: survives the star */
                     {"/f", 0, 2, "GET", 20},        /* URL and method ... */
                     {"/f*u=1*", 0, 1, nullptr, 21}, /* ... beside a parameter rule */
                     {"/g", 0, 0, nullptr, 22},      /* plain URL ... */
                     {"/g*u=1*", 0, 1, nullptr, 23}, /* ... beside a parameter rule */
                     {"/h*u", 0, 1, nullptr, 24},    /* a parameter's name alone */
                     {"/v*", 0, 3, "PUT", 25},       /* URL and method only */
                     {"/api/", 1, 0, nullptr, 26},   /* longest prefix on the way */
                     {"/api/v1/", 1, 0, nullptr, 27},
                 });
    expect_all(&sm, {
                        {"/s/a/b", nullptr, nullptr, 11},
                        {"/s/a/a/b", nullptr, nullptr, 11}, /* "/a/" half matched, then fails */
                        {"/sx/y/a/b", nullptr, nullptr, 11},
                        {"/s/a/b/", nullptr, nullptr, -1},
                        {"/s/a/bz", nullptr, nullptr, -1},
                        {"/r", "k=1", nullptr, 13},
                        {"/rx", "k=1", nullptr, -1},
                        {"/r", "k=12", nullptr, -1},
                        {"/r", "xk=1", nullptr, -1}, /* no match from inside a parameter */
                        {"/tx", "k=1", nullptr, 14},
                        {"/f", "u=1", "GET", 21},
                        {"/f", "u=2", "GET", 20},
                        {"/f", "u=2", "POST", -1},
                        {"/g", "u=2", nullptr, 22},
                        {"/g", "u=1", nullptr, 23},
                        {"/h", "x=1&u=anything", nullptr, 24},
                        {"/v", nullptr, "PUT", 25},
                        {"/v", nullptr, "put", -1},
                        {"/v", nullptr, "PUTS", -1},
                        {"/v", nullptr, "PU", -1},
                        {"/api/v2/users", nullptr, nullptr, 26},
                        {"/api/v1/users", nullptr, nullptr, 27},
                    });
    vxlb_state_machine_free(&sm);
}

TEST(UrlStateMachine, GrowsByTheDeltaOrMoreAndKeepsEveryRule)
{
    vxlbStateMachine sm{};
    ASSERT_EQ(vxlb_state_machine_init(&sm, 1), 0);
    EXPECT_EQ(sm.max_state, 1);
    EXPECT_EQ(sm.state_count, 1);
    EXPECT_EQ(sm.delta_state, 128);
    ASSERT_EQ(vxlb_state_machine_add(&sm, "/abc", 4, "GET", 3, 2, 0, 2, 0), 0);
    EXPECT_EQ(sm.max_state, 1 + 128);
    EXPECT_EQ(sm.state_count, 1 + 4 + 3);
    std::string long_one = "/" + std::string(199, 'l');
    ASSERT_EQ(vxlb_state_machine_add(&sm, long_one.c_str(), 200, nullptr, 0, 3, 0, 0, 0), 0);
    EXPECT_EQ(sm.max_state, 129 + 128 + 200) << "a text longer than the delta adds its length too";
    EXPECT_EQ(sm.state_count, 8 + 199) << "the root's '/' is shared";

    /* Many long patterns: each still answers its own id after all growth. */
    std::vector<std::string> urls;
    for (int k = 0; k < 300; ++k) {
        urls.push_back("/svc" + std::to_string(k) + "/" + std::string(50 + k % 7, 'a' + k % 26));
        ASSERT_EQ(vxlb_state_machine_add(&sm, urls.back().c_str(), len(urls.back().c_str()),
                                         nullptr, 0, 100 + k, 0, 0, 0),
                  0);
        ASSERT_LT(sm.state_count, sm.max_state);
    }
    for (int k = 0; k < 300; ++k) EXPECT_EQ(get(&sm, urls[k].c_str()), 100 + k);
    EXPECT_EQ(get(&sm, "/abc", nullptr, "GET"), 2);
    EXPECT_EQ(get(&sm, long_one.c_str()), 3);
    vxlb_state_machine_free(&sm);
}

TEST(UrlStateMachine, RefusesHighBytesAndAnswersOneWhenNotSetUp)
{
    vxlbStateMachine sm{};
    EXPECT_EQ(get(&sm, "/a"), 1) << "never set up";
    EXPECT_EQ(vxlb_state_machine_add(&sm, "/a", 2, nullptr, 0, 2, 0, 0, 0), -1);
    EXPECT_EQ(vxlb_state_machine_init(nullptr, 8), -1);
    EXPECT_EQ(vxlb_state_machine_free(nullptr), -1);
    EXPECT_EQ(vxlb_state_machine_add(nullptr, "/a", 2, nullptr, 0, 2, 0, 0, 0), -1);
    EXPECT_EQ(get(nullptr, "/a"), 1);

    ASSERT_EQ(vxlb_state_machine_init(&sm, 8), 0);
    EXPECT_EQ(vxlb_state_machine_add(&sm, "", 0, nullptr, 0, 2, 0, 0, 0), -1);
    EXPECT_EQ(vxlb_state_machine_add(&sm, nullptr, 3, nullptr, 0, 2, 0, 0, 0), -1);
    EXPECT_EQ(vxlb_state_machine_add(&sm, "/caf\xc3\xa9", 6, nullptr, 0, 2, 1, 0, 0), -1);
    EXPECT_EQ(vxlb_state_machine_add(&sm, "/x*\x80", 4, nullptr, 0, 2, 0, 0, 0), -1);
    EXPECT_EQ(vxlb_state_machine_add(&sm, "/m", 2, "G\xff", 2, 2, 0, 2, 0), -1);
    EXPECT_EQ(get(&sm, "/caf"), -1) << "a refused rule leaves no id";
    ASSERT_EQ(vxlb_state_machine_add(&sm, "/d\x7f", 3, nullptr, 0, 4, 1, 0, 0), 0)
        << "127 is usable";
    ASSERT_EQ(vxlb_state_machine_add(&sm, "/k*q=1*", 7, "GET", 3, 5, 0, 3, 0), 0);
    EXPECT_EQ(get(&sm, "/d\x7f"), 4);
    EXPECT_EQ(get(&sm, "/d\x7f\xe2\x82\xac"), -1) << "a high byte after a prefix";
    EXPECT_EQ(get(&sm, "/k", "q=\x90"), -1);
    EXPECT_EQ(get(&sm, "/k", "q=1", "G\xc5T"), -1);
    EXPECT_EQ(get(&sm, "/k", "q=1", "GET"), 5);
    EXPECT_EQ(get(&sm, nullptr), 1);
    EXPECT_EQ(get(&sm, ""), 1);

    EXPECT_EQ(vxlb_state_machine_free(&sm), 0);
    EXPECT_EQ(sm.max_state, 0);
    EXPECT_EQ(sm.state_count, 0);
    EXPECT_EQ(get(&sm, "/d\x7f"), 1) << "freed answers as never set up";
}

TEST(UrlStateMachineForHeader, TokenMustBeWholeAndIdsWithoutRulesPassThrough)
{
    vxlbStateMachineforHeader sm{};
    EXPECT_EQ(vxlb_state_machine_get_for_header(&sm, "gold", 4, 0, 5), 5) << "not set up";
    ASSERT_EQ(vxlb_state_machine_init_for_header(&sm, 1), 0);
    ASSERT_EQ(vxlb_state_machine_add_for_header(&sm, "gold", 4, 5, 0, 0), 0);
    ASSERT_EQ(vxlb_state_machine_add_for_header(&sm, "beta", 4, 42, 1, 0), 0);
    EXPECT_EQ(vxlb_state_machine_add_for_header(&sm, "\xc0x", 2, 6, 0, 0), -1);
    EXPECT_EQ(vxlb_state_machine_add_for_header(&sm, nullptr, 2, 6, 0, 0), -1);
    std::string huge(2000, 't');
    ASSERT_EQ(vxlb_state_machine_add_for_header(&sm, huge.c_str(), 2000, 9, 0, 0), 0);

    struct {
        const char* header;
        int len;
        int id;
        int want;
    } cases[] = {
        {"gold", 4, 5, 5},          {"gol", 3, 5, -1},           {"golden", 6, 5, -1},
        {"beta", 4, 42, 42},        {"gold", 4, 42, -1},         {"gold", 4, 7, 7},
        {nullptr, 0, 5, -1},        {nullptr, 0, 7, 7},          {"go\xf0", 3, 5, -1},
        {huge.c_str(), 1022, 9, 9}, {huge.c_str(), 2000, 9, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vxlb_state_machine_get_for_header(&sm, c.header, c.len, 0, c.id), c.want)
            << (c.header ? std::string(c.header, std::min(c.len, 10)) : "(null)") << " id " << c.id;
    }
    EXPECT_EQ(vxlb_state_machine_free_for_header(&sm), 0);
    EXPECT_EQ(vxlb_state_machine_get_for_header(&sm, "gold", 4, 0, 5), 5);
    EXPECT_EQ(vxlb_state_machine_free_for_header(nullptr), -1);
}

}  // namespace
