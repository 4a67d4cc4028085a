/*
 * queries: the query texts a run's agents announced on their data
 * connections, as records 22 carry them.
 *
 *   22,<fpi>,<id>,<text>   a query text and its id, sent once per text in a
 *                          session; fpi is the flowpath that met it first,
 *                          0 for the five fixed queries (ids 1 to 5)
 *
 * The text is escaped: newline, carriage return, '"', '&', '\'', ',', '.',
 * ':', '\\', '^' and '|' travel as the numeric entities "&#010;", "&#013;",
 * "&#034;", "&#038;", "&#039;", "&#044;", "&#46;", "&#58;", "&#092;",
 * "&#094;" and "&#124;"; '_' stays as it is. The agent cuts a record longer
 * than its 65,536-byte buffer after 65,532 bytes and puts "..." behind, so
 * only such a line may hold raw points, and may end inside an entity.
 *
 * queries.tsv has one row per record 22: the connection, fpi, id, the text
 * as sent and the text decoded for display. Pure functions except
 * read_queries, which reads the file back for tests. A QueryTable is one per
 * data connection, used by the server's thread only.
 */
#ifndef VXC_LITE_QUERIES_H
#define VXC_LITE_QUERIES_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vxc {

/* The longest record 22 line (without its line feed), the cut one; an
 * uncut one is at most kQueryLineMax - 4 bytes. */
constexpr size_t kQueryLineMax = 65535;

/* The last fixed query's id; discovered ones follow it. */
constexpr long long kLastFixedQueryId = 5;

struct QueryRecord {
    long long fpi = 0;
    long long id = 0;
    std::string text; /* as sent, "..." of a cut one included */
    bool cut = false;
};

/* Checks record 22's fields (those after the number, as parse_record splits
 * them). 0 and the record in out (which may be null), or -1 with the
 * reason. */
int parse_query_record(const std::vector<std::string>& fields, QueryRecord* out,
                       std::string* error);

/* Every "&#<1 to 3 digits>;" naming a byte from 1 to 255 becomes that
 * byte; anything else, a cut entity too, stays as it is. */
std::string decode_entities(std::string_view text);

/*
 * A connection's dictionary of queries. An id stands for one text and a
 * text has one id for the whole session, which is the connection's life.
 * Bounded: past kMaxKept texts or kMaxBytes of them new ones are not kept
 * (and so not checked); dropped() says how many were not.
 */
class QueryTable {
public:
    static constexpr size_t kMaxKept = 1u << 16;
    static constexpr size_t kMaxBytes = 64u << 20;

    enum class Verdict { New, Repeated, IdReused, TextReused };
    /* Enters a record; IdReused when its id stood for another text,
     * TextReused when its text had another id. Neither changes the table. */
    Verdict add(const QueryRecord& q);
    unsigned long long dropped() const { return dropped_; }

private:
    std::map<long long, const std::string*> by_id_; /* into by_text_'s keys */
    std::map<std::string, long long, std::less<>> by_text_;
    size_t bytes_ = 0;
    unsigned long long dropped_ = 0;
};

constexpr const char* kQueriesHeader = "conn\tfpi\tid\ttext\tdecoded";

struct QueryRow {
    unsigned conn = 0;
    long long fpi = 0;
    long long id = 0;
    /* As sent, and with its entities back to characters; in both a tab or
     * line break is a blank, as everywhere in the tsv files. */
    std::string text;
    std::string decoded;
};

std::string query_row(unsigned conn, const QueryRecord& q);
std::vector<QueryRow> read_queries(const std::string& path);

}  // namespace vxc

#endif
