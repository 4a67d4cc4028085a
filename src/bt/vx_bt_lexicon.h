/*
 * Keywords of custom rules (rule kind 2): the lexicon a custom rule fills,
 * and the automaton that finds them in a URL.
 *
 * STAND-IN(custom-automaton): the lexicon is kept as the rule file gives
 * it; the automaton that searches it is not built yet, so a search finds no
 * keyword and a custom rule names every request "others".
 *
 * Threads: built by the control thread while reading a rule file.
 */
#ifndef VX_BT_LEXICON_H
#define VX_BT_LEXICON_H

struct VXBTCustomRule;

struct VXLBKeywordLexicon {
    char keyword[256];
    char bt_name[128];
    char match_constraint;
    unsigned priority;
    unsigned elements_len;
};

extern "C" {
void vxlb_build_lexicon(VXBTCustomRule* rule);
/* 0, or -1 for a null keyword or a failed growth. */
int add_to_lexicon(VXBTCustomRule* rule, char* keyword, unsigned priority, char* bt_name,
                   char match_constraint);
void dealloc_lexicon(VXBTCustomRule* rule);
int vxlb_init_automaton(void* trie_node, VXBTCustomRule* rule);
/* The bt_name of the chosen keyword, or null. */
char* search_match_machine(char* input, void* trie_node, VXBTCustomRule* rule);
}

#endif
