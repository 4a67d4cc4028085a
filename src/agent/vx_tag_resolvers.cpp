#include "agent/vx_tag_resolvers.h"

#include <apr_pools.h>
#include <apr_strings.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/vx_cloud_metadata.h"
#include "agent/vx_instance.h"
#include "agent/vx_json_lookup.h"
#include "agent/vx_script_runner.h"
#include "agent/vx_settings.h"
#include "agent/vx_tag_encoding.h"
#include "agent/vx_tag_resolvers_private.h"
#include "core/vx_encode.h"
#include "core/vx_limits.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

namespace {

constexpr char kOsRelease[] = "/etc/os-release";
constexpr char kBash[] = "/bin/bash";

apr_pool_t* g_listPool; /* the two lists' tables; instance lifetime */

int trace_level()
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXSys.agentTraceLevel : 0;
}

/* A copy cut at 254 characters; null for null or "". */
char* value_copy(const char* v)
{
    if (!v || !*v) return nullptr;
    char buf[vx::kTagValueSize];
    vx::copy_text(buf, sizeof buf, v);
    return strdup(buf);
}

void set_value(VXTag_t* tag, const char* v)
{
    free(tag->resolvedValue);
    tag->resolvedValue = value_copy(v);
}

void free_tag(VXTag_t* t)
{
    if (!t) return;
    free(t->tagName);
    free(t->tagField);
    free(t->name_space);
    free(t->tagParam);
    free(t->resolvedValue);
    free(t);
}

/* The whole of a small file (at most `max` bytes), or false. */
bool read_file(const char* path, std::string& out, size_t max)
{
    FILE* fp = fopen(path, "r");
    if (!fp) return false;
    out.resize(max);
    const size_t n = fread(out.data(), 1, max, fp);
    fclose(fp);
    out.resize(n);
    return true;
}

int g_propfileReads; /* files read by VXPropfileResolve; the test looks */

const char* home()
{
    return vx_settings_home_path();
}

/* By the parameter's file type, as the cloud and k8s tags do. */
void resolve_by_file(VXTag_t* tag, apr_hash_t* list)
{
    switch (filetype(tag->tagParam)) {
        case 1:
            VXPropfileResolve(tag, list);
            break;
        case 2:
            resolvejson(tag);
            break;
        case 3:
            resolveScript(tag, 0);
            break;
        default:
            VX_TRACE(trace_level(), 1, "CONTROL_THREAD", "Tag '%s': '%s' is not a known file type",
                     tag->tagName, tag->tagParam);
            break;
    }
}

/* A cloud tag without a parameter: the resolver script when installed,
 * else the metadata service. */
void resolve_cloud(VXTag_t* tag, int scriptFlag, vx::Cloud cloud, const char* script)
{
    const std::string path = std::string(home()) + script;
    if (access(path.c_str(), R_OK) == 0) {
        resolveScript(tag, scriptFlag);
        return;
    }
    char v[vx::kTagValueSize];
    if (vx::cloud_metadata_get(cloud, tag->tagField, v, sizeof v) == 0) set_value(tag, v);
}

void resolve_one(VXTag_t* tag, apr_hash_t* list)
{
    switch (getnamespace(tag->name_space)) {
        case namespace_inline:
            VXInlineResolve(tag);
            break;
        case namespace_enviournment:
            VXEnvTagResolve(tag);
            break;
        case namespace_nds:
            VXPVXSResolve(tag);
            break;
        case namespace_propfile:
            if (tag->tagParam && *tag->tagParam) VXPropfileResolve(tag, list);
            break;
        case namespace_kubernetes:
            VXk8sResolve(tag, list);
            break;
        case namespace_aws:
            VXawsResolve(tag, list);
            break;
        case namespace_gcp:
            VXCloudGCPResolver(tag, list);
            break;
        case namespace_ms_azure:
            VXAZUREResolver(tag, list);
            break;
        case namespace_system:
            VXSystemResolve(tag);
            break;
        case namespace_json:
            resolvejson(tag);
            break;
        default:
            break;
    }
}

}  // namespace

int vx_tag_propfile_reads()
{
    return g_propfileReads;
}

extern "C" enum vx_tag_namespace getnamespace(char* str)
{
    static const struct {
        const char* text;
        vx_tag_namespace ns;
    } kNames[] = {
        {"inline", namespace_inline}, {"env", namespace_enviournment},
        {"nds", namespace_nds},       {"prop", namespace_propfile},
        {"aws", namespace_aws},       {"k8s", namespace_kubernetes},
        {"gcp", namespace_gcp},       {"azure", namespace_ms_azure},
        {"sys", namespace_system},    {"json", namespace_json},
    };
    for (const auto& n : kNames)
        if (str && strcasecmp(str, n.text) == 0) return n.ns;
    return namespace_notused1;
}

extern "C" void ParseTags(char* ptr, apr_hash_t* list, apr_hash_t* propfilelist)
{
    if (!ptr || !*ptr || !list) return;
    std::string copy = ptr;
    std::vector<char*> items(vx::kTagConfItemsMax);
    const int n = vxlb_get_tokens_with_multi_delimiter(
        copy.data(), items.data(), const_cast<char*>(","), vx::kTagConfItemsMax);
    std::vector<char*> fields(vx::kTagConfItemsMax);
    for (int i = 0; i < n; ++i) {
        char* eq = strchr(items[i], '=');
        if (!eq) continue;
        *eq = '\0';
        char key[vx::kTagValueSize];
        vx::copy_text(key, sizeof key, items[i]);
        if (!*key || strcasecmp(key, "Technology") == 0 || searchTagKey(key, list) ||
            TagExistsinStaticList(key))
            continue;
        const int k = vxlb_get_tokens_with_multi_delimiter(
            eq + 1, fields.data(), const_cast<char*>(":"), vx::kTagConfItemsMax);
        auto* t = static_cast<VXTag_t*>(calloc(1, sizeof(VXTag_t)));
        if (!t) {
            VX_ERROR("CONTROL_THREAD", "No memory for the tag '%s'", key);
            return;
        }
        t->tagName = strdup(key);
        t->name_space = strdup(k > 0 ? fields[0] : "");
        t->tagField = strdup(k > 1 ? fields[1] : "");
        if (k > 2) t->tagParam = strdup(fields[k - 1]);
        if (!t->tagName || !t->name_space || !t->tagField || (k > 2 && !t->tagParam)) {
            free_tag(t);
            VX_ERROR("CONTROL_THREAD", "No memory for the tag '%s'", key);
            return;
        }
        if (t->tagParam && propfilelist) {
            if (apr_hash_get(propfilelist, t->tagParam, APR_HASH_KEY_STRING)) {
                t->c_file = 1;
            } else {
                const char* p = apr_pstrdup(apr_hash_pool_get(propfilelist), t->tagParam);
                apr_hash_set(propfilelist, p, APR_HASH_KEY_STRING, p);
            }
        }
        apr_hash_set(list, t->tagName, APR_HASH_KEY_STRING, t);
    }
}

extern "C" void FREE_PROPFILELIST(apr_hash_t* propfilelist)
{
    if (propfilelist) apr_hash_clear(propfilelist);
}

extern "C" void processTags(apr_hash_t* list)
{
    if (!list) return;
    /* The entries first: a resolver walks the table itself (a property file
     * serves every tag on it), and a table has one built-in iterator. */
    std::vector<VXTag_t*> tags;
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, list); hi; hi = apr_hash_next(hi))
        tags.push_back(static_cast<VXTag_t*>(apr_hash_this_val(hi)));
    for (VXTag_t* tag : tags) {
        if (tag->c_file == 2 || tag->resolvedValue) continue;
        resolve_one(tag, list);
        VX_TRACE(trace_level(), 1, "CONTROL_THREAD", "Tag '%s' (%s:%s) resolved to '%s'",
                 tag->tagName, tag->name_space, tag->tagField,
                 tag->resolvedValue ? tag->resolvedValue : "(nothing)");
    }
}

extern "C" char* convertTagsToJson(apr_hash_t* List, int adddefaulttags)
{
    VXProxyInstance_t* app = vx_app();
    if (!adddefaulttags && (!List || apr_hash_count(List) == 0)) return nullptr;
    std::vector<std::string> names, values;
    for (apr_hash_index_t* hi = List ? apr_hash_first(nullptr, List) : nullptr;
         hi && static_cast<int>(names.size()) < vx::kTagJsonPairsMax; hi = apr_hash_next(hi)) {
        auto* tag = static_cast<VXTag_t*>(apr_hash_this_val(hi));
        if (!tag->resolvedValue) continue;
        names.emplace_back(tag->tagName);
        values.emplace_back(tag->resolvedValue);
    }
    if (adddefaulttags && app && app->VXBCISetting.agentType && *app->VXBCISetting.agentType) {
        names.emplace_back("Technology");
        values.emplace_back(app->VXBCISetting.agentType);
    }
    std::vector<char*> k, v;
    for (size_t i = 0; i < names.size(); ++i) {
        check_and_remove_slash_n(values[i].data());
        EncodeTagsandAttributes(names[i].data());
        EncodeTagsandAttributes(values[i].data());
        k.push_back(names[i].data());
        v.push_back(values[i].data());
    }
    sortTags(k.data(), v.data(), static_cast<int>(k.size()));
    std::string json;
    vx::tag_pairs_to_json(json, k.data(), v.data(), static_cast<int>(k.size()));
    return strdup(json.c_str());
}

extern "C" void VXInlineResolve(VXTag_t* tag)
{
    set_value(tag, tag->tagField);
}

extern "C" void VXEnvTagResolve(VXTag_t* tag)
{
    set_value(tag, getenv(tag->tagField));
}

extern "C" void VXPVXSResolve(VXTag_t* tag)
{
    const char* file = conf_file[0] ? conf_file : tag->tagParam;
    FILE* fp = file && *file ? fopen(file, "r") : nullptr;
    if (!fp) return;
    char line[1024];
    while (fgets(line, sizeof line, fp)) {
        line[strcspn(line, "\r\n")] = '\0';
        if (char* v = search_keyword(line, tag->tagField)) {
            set_value(tag, v);
            break;
        }
    }
    fclose(fp);
}

extern "C" char* search_keyword_propfile(char* buf, char* keyword)
{
    static thread_local char value[vx::kTagValueSize];
    if (!buf || !keyword || !*keyword) return nullptr;
    const size_t klen = strlen(keyword);
    for (const char* line = buf; line && *line;) {
        const char* eol = strchr(line, '\n');
        const std::string_view l(line, eol ? static_cast<size_t>(eol - line) : strlen(line));
        for (size_t at = l.find(keyword); at != std::string_view::npos;
             at = l.find(keyword, at + 1)) {
            if (at > 0 && l[at - 1] != ' ' && l[at - 1] != '\t') continue;
            /* The key must be whole: "host" does not take "hostname". */
            const size_t after = at + klen;
            if (after < l.size() && !strchr(" \t:=", l[after])) continue;
            std::string_view rest = l.substr(after);
            size_t sep = rest.find(':');
            if (sep == std::string_view::npos) sep = rest.find('=');
            if (sep == std::string_view::npos) continue;
            rest.remove_prefix(sep + 1);
            while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\t'))
                rest.remove_prefix(1);
            while (!rest.empty() && rest.back() == '\r') rest.remove_suffix(1);
            const size_t n = rest.size() < sizeof value - 1 ? rest.size() : sizeof value - 1;
            memcpy(value, rest.data(), n);
            value[n] = '\0';
            return value;
        }
        line = eol ? eol + 1 : nullptr;
    }
    return nullptr;
}

extern "C" void VXPropfileResolve(VXTag_t* tag, apr_hash_t* list1)
{
    std::string buf;
    if (!tag->tagParam || !read_file(tag->tagParam, buf, vx::kTagPropFileMax)) {
        VX_TRACE(trace_level(), 1, "CONTROL_THREAD", "Tag '%s': property file '%s' not readable",
                 tag->tagName, tag->tagParam ? tag->tagParam : "");
        tag->c_file = 2;
        return;
    }
    ++g_propfileReads;
    set_value(tag, search_keyword_propfile(buf.data(), tag->tagField));
    tag->c_file = 2;
    /* Every other tag on the same file takes its value from this read. */
    for (apr_hash_index_t* hi = list1 ? apr_hash_first(nullptr, list1) : nullptr; hi;
         hi = apr_hash_next(hi)) {
        auto* t = static_cast<VXTag_t*>(apr_hash_this_val(hi));
        if (t == tag || t->c_file == 2 || !t->tagParam || strcmp(t->tagParam, tag->tagParam) != 0)
            continue;
        const vx_tag_namespace ns = getnamespace(t->name_space);
        if (ns != namespace_propfile && filetype(t->tagParam) != 1) continue;
        set_value(t, search_keyword_propfile(buf.data(), t->tagField));
        t->c_file = 2;
    }
}

extern "C" void VXk8sResolve(VXTag_t* tag, apr_hash_t* list)
{
    if (!tag->tagParam || !*tag->tagParam) {
        VX_ERROR("CONTROL_THREAD", "other field is mandatory while resolving k8s");
        return;
    }
    resolve_by_file(tag, list);
}

extern "C" void VXawsResolve(VXTag_t* tag, apr_hash_t* list)
{
    if (tag->tagParam && *tag->tagParam)
        resolve_by_file(tag, list);
    else
        resolve_cloud(tag, 2, vx::Cloud::Aws, "/scripts/awsmetadataresolver.sh");
}

extern "C" void VXCloudGCPResolver(VXTag_t* tag, apr_hash_t* list)
{
    if (tag->tagParam && *tag->tagParam)
        resolve_by_file(tag, list);
    else
        resolve_cloud(tag, 3, vx::Cloud::Gcp, "/scripts/gcpmetadataresolve.sh");
}

extern "C" void VXAZUREResolver(VXTag_t* tag, apr_hash_t* list)
{
    if (tag->tagParam && *tag->tagParam)
        resolve_by_file(tag, list);
    else
        resolve_cloud(tag, 4, vx::Cloud::Azure, "/scripts/azuremetadataresolve.sh");
}

extern "C" char* scriptRes(char* path, char* key, int flag)
{
    if (!path || access(path, R_OK) != 0) return nullptr;
    const char* extra = flag == 2 ? getenv("KLV_APP_AGENT_ENV_NAME") : nullptr;
    const char* argv[] = {"bash", path, key ? key : "", extra, nullptr};
    char line[vx::kTagScriptLineSize];
    if (vx::run_script(kBash, argv, line, sizeof line, vx::kTagScriptTimeoutMs) !=
            vx::ScriptResult::Ok ||
        !*line)
        return nullptr;
    return strdup(line);
}

extern "C" void resolveScript(VXTag_t* tag, int flag)
{
    static const char* const kScripts[] = {
        nullptr, "/scripts/script.sh", "/scripts/awsmetadataresolver.sh",
        "/scripts/gcpmetadataresolve.sh", "/scripts/azuremetadataresolve.sh"};
    if (flag < 0 || flag > 4) return;
    std::string path =
        flag == 0 ? (tag->tagParam ? tag->tagParam : "") : std::string(home()) + kScripts[flag];
    char* v = scriptRes(path.data(), tag->tagField, flag);
    set_value(tag, v);
    free(v);
}

extern "C" void resolvejson(VXTag_t* tag)
{
    if (!tag->tagParam || access(tag->tagParam, R_OK) != 0) return;
    std::string script = std::string(home()) + "/scripts/jsonfilemetadataresolve.sh";
    if (access(script.c_str(), R_OK) == 0) {
        const char* argv[] = {"bash", script.c_str(), tag->tagParam, tag->tagField, nullptr};
        char line[vx::kTagScriptLineSize];
        if (vx::run_script(kBash, argv, line, sizeof line, vx::kTagScriptTimeoutMs) ==
                vx::ScriptResult::Ok &&
            strcmp(line, "null") != 0)
            set_value(tag, line);
        return;
    }
    /* No script installed: the file is read here. */
    std::string text;
    char v[vx::kTagValueSize];
    if (read_file(tag->tagParam, text, vx::kTagPropFileMax) &&
        vx::json_lookup(text.data(), text.size(), tag->tagField, v, sizeof v) == 0)
        set_value(tag, v);
}

extern "C" char* OSTag(void)
{
    FILE* fp = fopen(kOsRelease, "r");
    if (!fp) return nullptr;
    char line[512];
    char* out = nullptr;
    while (!out && fgets(line, sizeof line, fp)) {
        if (strncmp(line, "PRETTY_NAME=", 12) != 0) continue;
        char* v = line + 12;
        if (*v == '"') ++v;
        v[strcspn(v, "\"\n")] = '\0';
        out = strdup(v);
    }
    fclose(fp);
    return out;
}

extern "C" int hasAPI(VXTag_t* tag)
{
    VXProxyInstance_t* app = vx_app();
    const char* f = tag->tagField;
    if (!app || !f) return 0;
    const VXBCISetting_t& s = app->VXBCISetting;
    if (strcasecmp(f, "agentType") == 0) {
        set_value(tag, s.agentType);
    } else if (strcasecmp(f, "machineType") == 0) {
        set_value(tag, "Linux");
    } else if (strcasecmp(f, "OS") == 0) {
        char* os = OSTag();
        set_value(tag, os);
        free(os);
    } else if (strcasecmp(f, "version") == 0) {
        set_value(tag, s.agentVersion);
    } else {
        return 0;
    }
    return 1;
}

extern "C" void VXSystemResolve(VXTag_t* tag)
{
    const bool param = tag->tagParam && *tag->tagParam;
    if (!param && hasAPI(tag)) return;
    resolveScript(tag, param ? 0 : 1);
}

extern "C" int filetype(char* path)
{
    FILE* fp = path && *path ? fopen(path, "r") : nullptr;
    if (!fp) return 0;
    const char* slash = strrchr(path, '/');
    const char* dot = strrchr(slash ? slash : path, '.');
    int type = 0;
    if (dot) {
        for (const char* e : {".txt", ".prop", ".properties", ".conf"})
            if (strcasecmp(dot, e) == 0) type = 1;
        for (const char* e : {".sh", ".bat"})
            if (strcasecmp(dot, e) == 0) type = 3;
        if (strcasecmp(dot, ".json") == 0) type = 2;
    } else {
        char first[256] = "";
        if (fgets(first, sizeof first, fp)) {
            if (first[0] == '{')
                type = 2;
            else if (strncmp(first, "#!", 2) == 0 || strncasecmp(first, "@echo", 5) == 0)
                type = 3;
        }
        if (type == 0) {
            rewind(fp);
            type = ColPresent(fp);
        }
    }
    fclose(fp);
    return type;
}

extern "C" int ColPresent(FILE* fp)
{
    if (!fp) return 0;
    char line[1024];
    int seen = 0;
    while (seen < 4 && fgets(line, sizeof line, fp)) {
        line[strcspn(line, "\r\n")] = '\0';
        if (!line[0] || line[0] == '#') continue;
        ++seen;
        if (!strchr(line, ':') && !strchr(line, '=')) return 0;
    }
    return seen > 0 ? 1 : 0;
}

extern "C" int tagtolower(char* str)
{
    if (!str) return -1;
    for (char* p = str; *p; ++p) *p = static_cast<char>(tolower(static_cast<unsigned char>(*p)));
    return 0;
}

extern "C" int searchTagKey(char* key, apr_hash_t* list)
{
    return key && list && apr_hash_get(list, key, APR_HASH_KEY_STRING) ? 1 : 0;
}

extern "C" int TagExistsinStaticList(char* key)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return 0;
    return searchTagKey(key, app->VXBCISetting.taglist) ||
           searchTagKey(key, app->VXBCISetting.attributelist);
}

extern "C" void FREE_HASHLIST(apr_hash_t* List)
{
    if (!List) return;
    /* The key is the tag's own name: the entry goes before the tag (removing
     * the current entry while iterating is safe). */
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, List); hi; hi = apr_hash_next(hi)) {
        auto* tag = static_cast<VXTag_t*>(apr_hash_this_val(hi));
        apr_hash_set(List, tag->tagName, APR_HASH_KEY_STRING, nullptr);
        free_tag(tag);
    }
}

extern "C" void FREE_STATIC_DATA(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    FREE_HASHLIST(app->VXBCISetting.taglist);
    FREE_HASHLIST(app->VXBCISetting.attributelist);
}

namespace {

void configure(int attributes, const char* text);

}  // namespace

void vx::agent_tags_configure(int attributes, const char* text)
{
    try {
        configure(attributes, text);
    } catch (...) { /* no memory: the tags stay as they were; start-up goes on */
        VX_ERROR("CONTROL_THREAD", "No memory to resolve the %s",
                 attributes ? "attributes" : "tags");
    }
}

namespace {

void configure(int attributes, const char* text)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !text) return;
    VXBCISetting_t& s = app->VXBCISetting;
    apr_hash_t*& list = attributes ? s.attributelist : s.taglist;
    if (list && apr_hash_count(list) > 0) return; /* once filled, kept */
    if (!list) {
        if (!g_listPool && apr_pool_create(&g_listPool, nullptr) != APR_SUCCESS) {
            VX_ERROR("CONTROL_THREAD", "No memory for the tag lists");
            return;
        }
        list = apr_hash_make(g_listPool);
    }
    apr_pool_t* scratch = nullptr;
    if (apr_pool_create(&scratch, g_listPool) != APR_SUCCESS) return;
    apr_hash_t* propfiles = apr_hash_make(scratch);
    vx::cloud_metadata_reset(); /* one try of the service per configuration */
    ParseTags(const_cast<char*>(text), list, propfiles);
    processTags(list);
    FREE_PROPFILELIST(propfiles);
    apr_pool_destroy(scratch);
    char* json = convertTagsToJson(list, attributes ? 0 : 1);
    char*& dst = attributes ? s.tierAttr : s.json_tag;
    if (json) {
        free(dst);
        dst = json;
    }
    VX_TRACE(trace_level(), 1, "CONTROL_THREAD", "%s: %s", attributes ? "attributes" : "tags",
             dst ? dst : "(none)");
}

}  // namespace
