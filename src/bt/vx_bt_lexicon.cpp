#include "bt/vx_bt_lexicon.h"

#include <cstdlib>
#include <cstring>

#include "bt/vx_bt_rule_file.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

namespace {
constexpr unsigned kLexiconStep = 20;
}

extern "C" void vxlb_build_lexicon(VXBTCustomRule* rule)
{
    if (!rule || rule->dictionary) return;
    rule->dictionary =
        static_cast<VXLBKeywordLexicon*>(calloc(kLexiconStep, sizeof(VXLBKeywordLexicon)));
    rule->keyword_count = 0;
}

extern "C" int add_to_lexicon(VXBTCustomRule* rule, char* keyword, unsigned priority, char* bt_name,
                              char match_constraint)
{
    if (!rule || !keyword) return -1;
    if (!rule->dictionary) vxlb_build_lexicon(rule);
    if (!rule->dictionary) return -1;
    if (rule->keyword_count > 0 && rule->keyword_count % kLexiconStep == 0) {
        auto* grown = static_cast<VXLBKeywordLexicon*>(realloc(
            rule->dictionary, sizeof(VXLBKeywordLexicon) * (rule->keyword_count + kLexiconStep)));
        if (!grown) return -1;
        rule->dictionary = grown;
    }
    VXLBKeywordLexicon& k = rule->dictionary[rule->keyword_count++];
    memset(&k, 0, sizeof k);
    vx::copy_text(k.keyword, sizeof k.keyword, keyword);
    vx::copy_text(k.bt_name, sizeof k.bt_name, bt_name ? bt_name : "");
    k.match_constraint = match_constraint;
    k.priority = priority;
    k.elements_len = static_cast<unsigned>(strlen(k.keyword));
    return 0;
}

extern "C" void dealloc_lexicon(VXBTCustomRule* rule)
{
    if (!rule) {
        VX_ERROR("BT_MON", "VXBTCustomeRule is NULL, hence returning");
        return;
    }
    free(rule->dictionary);
    rule->dictionary = nullptr;
    rule->keyword_count = 0;
}

/* STAND-IN(custom-automaton): nothing to build; the search finds nothing. */
extern "C" int vxlb_init_automaton(void* trie_node, VXBTCustomRule* rule)
{
    (void)trie_node;
    (void)rule;
    return 0;
}

extern "C" char* search_match_machine(char* input, void* trie_node, VXBTCustomRule* rule)
{
    (void)input;
    (void)trie_node;
    (void)rule;
    return nullptr;
}
