/*
 * The agent's own tags and attributes: key and value pairs sent in the
 * connection request (tags=, attributes=) and in records 110 and 111, so
 * that the collector can group instances. The configuration ("tags",
 * "attributes", or KLV_APP_AGENT_TAGS / KLV_APP_AGENT_ATTRIBUTES) names for
 * each key a source, "key=namespace:field[:parameter]", resolved once at
 * start-up:
 *
 *   inline  the field itself          env    getenv(field)
 *   nds     line of the settings file prop   key of a property file
 *   json    key (dotted path) of a JSON file
 *   k8s     key of a file (parameter required)
 *   aws, gcp, azure  metadata name: by the file's type with a parameter;
 *           else the resolver script under <home>/scripts, or the metadata
 *           service (vx_cloud_metadata.h) when no script is installed
 *   sys     agentType, machineType, OS, version; else a script
 *
 * Scripts run through vx_script_runner.h (time limit, bounded output, an
 * argument vector). A source that gives nothing leaves the tag out of the
 * JSON; nothing here stops the agent from starting.
 *
 * Ownership: VXBCISetting.taglist and attributelist own their VXTag_t and
 * its texts (malloc); convertTagsToJson returns malloc'd text.
 * Threads: agent_init's thread or the control thread, one at a time.
 */
#ifndef VX_TAG_RESOLVERS_H
#define VX_TAG_RESOLVERS_H

#include <apr_hash.h>

#include <cstdio>

#include "bt/vx_bt_tags.h"

struct VXTag_t {
    char* tagName;
    char* tagField;
    char* name_space;
    char* tagParam;
    char* resolvedValue; /* null: nothing found, the tag is left out */
    int c_file;          /* parameter: 0 first use, 1 named before, 2 resolved */
};

extern "C" {
/* Parses configuration text into `list` (key -> VXTag_t*). Items without
 * "=", with an empty key, the key "Technology" or a key already in `list`,
 * taglist or attributelist are dropped. `propfilelist` collects the
 * parameters seen (FREE_PROPFILELIST empties it). */
void ParseTags(char* ptr, apr_hash_t* list, apr_hash_t* propfilelist);
void FREE_PROPFILELIST(apr_hash_t* propfilelist);
/* Resolves every tag not yet resolved. */
void processTags(apr_hash_t* list);
/* {"key":"value",...} of the resolved tags (at most 127), sorted, encoded,
 * with "Technology" and the agent type when `adddefaulttags`; null for an
 * empty list without default tags. The caller frees it. */
char* convertTagsToJson(apr_hash_t* List, int adddefaulttags);

enum vx_tag_namespace getnamespace(char* str);
void VXEnvTagResolve(VXTag_t* tag);
void VXInlineResolve(VXTag_t* tag);
void VXPVXSResolve(VXTag_t* tag);
void VXSystemResolve(VXTag_t* tag);
void VXPropfileResolve(VXTag_t* tag, apr_hash_t* list1);
void VXawsResolve(VXTag_t* tag, apr_hash_t* list);
void VXk8sResolve(VXTag_t* tag, apr_hash_t* list);
void VXCloudGCPResolver(VXTag_t* tag, apr_hash_t* list);
void VXAZUREResolver(VXTag_t* tag, apr_hash_t* list);
/* flag 0: the parameter is the script; 1 scripts/script.sh; 2, 3, 4 the
 * aws, gcp, azure resolver scripts under home. */
void resolveScript(VXTag_t* tag, int flag);
void resolvejson(VXTag_t* tag);
/* 1 when the system answers the field itself (agentType, machineType, OS,
 * version, any case), with the value set. */
int hasAPI(VXTag_t* tag);
/* PRETTY_NAME of /etc/os-release, malloc'd, or null. */
char* OSTag(void);
/* 0 unreadable or unknown, 1 property file, 2 JSON, 3 script. */
int filetype(char* path);
int ColPresent(FILE* fp);
/* The last line a script prints for `key`, malloc'd, or null. */
char* scriptRes(char* path, char* key, int flag);
/* The value of `keyword` in property text, in a static buffer, or null. */
char* search_keyword_propfile(char* buf, char* keyword);
int tagtolower(char* str);

int TagExistsinStaticList(char* key);
int searchTagKey(char* key, apr_hash_t* list);
void FREE_HASHLIST(apr_hash_t* List);
void FREE_STATIC_DATA(void);
}

namespace vx {

/* The "tags" (attributes 0) or "attributes" (1) configuration: unless the
 * list is filled already, parse, resolve and store the JSON in json_tag or
 * tierAttr. */
void agent_tags_configure(int attributes, const char* text);

}  // namespace vx

#endif
