/* The record-safe text encoders, the header decoder and Base64. */
#include "core/vx_encode.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using Encoder = void (*)(char*, int, char*);

std::string encode(Encoder fn, const std::string& in, int len = 256)
{
    std::vector<char> sb(static_cast<size_t>(len) + 1, '#');
    std::string copy = in;
    fn(sb.data(), len, copy.data());
    return sb.data();
}

TEST(VxEncode, EachEncoderEscapesItsOwnSetAndLeavesTheRest)
{
    const struct {
        Encoder fn;
        const char* in;
        const char* want;
    } cases[] = {
        {escapeURLEncoding, "a|b\nc\rd\"e&f'g,h.i:j\\k^l",
         "a%7Cb%Ac%Dd%22e%26f%27g%2Ch%2Ei%3Aj%5Ck%5El"},
        {escapeURLEncoding, "keep /=%#;?~ 09AZaz", "keep /=%#;?~ 09AZaz"},
        {escapeURLEncoding, "", ""},
        /* the HTTP form turns all nine into a comma */
        {escapeURLEncodingForHttp, "|^\\:\n\r\"',", "%2C%2C%2C%2C%2C%2C%2C%2C%2C"},
        {escapeURLEncodingForHttp, "x=1&y=a.b;c", "x=1&y=a.b;c"},
        {replaceCharacterForVXLQ, "a\nb\r\nc\"d'e|f,g", "a%20b%20%20c%22d'e|f,g"},
    };
    for (const auto& c : cases) EXPECT_EQ(encode(c.fn, c.in), c.want) << c.in;
}

TEST(VxEncode, DecodeHTMLUndoesEscapeHTMLInOnePassAndCopiesWhatIsNoEntity)
{
    std::string in = "HTTP_a.b:80|\"x\"&#46;\n_";
    char esc[256], back[256];
    escapeHTML(esc, sizeof esc, in.data(), 1);
    decodeHTML(back, esc);
    EXPECT_EQ(std::string(back), in) << esc;
    decodeHTML(back, "&#;&#1234;&#46&#0;&#x41;&");
    EXPECT_STREQ(back, "&#;&#1234;&#46&#0;&#x41;&");
}

/* Every encoder stops 2 bytes from `len`, terminates, never writes past
 * `len`, and never leaves half an escape at the end: the output is the
 * encoding of the longest prefix of the input that fits in len - 2. */
TEST(VxEncode, EncodersStopTwoBytesFromLenAndNeverSplitAnEscape)
{
    struct Enc {
        const char* name;
        Encoder fn;
    };
    const Enc encoders[] = {{"escapeURLEncoding", escapeURLEncoding},
                            {"escapeURLEncodingForHttp", escapeURLEncodingForHttp},
                            {"replaceCharacterForVXLQ", replaceCharacterForVXLQ}};
    const std::string inputs[] = {"abcdefghijklmnop", "ab|\"\n,:cd\"\n|\"\r.x"};
    for (const Enc& e : encoders) {
        for (const std::string& input : inputs) {
            std::vector<std::string> prefix_enc;
            for (size_t i = 0; i <= input.size(); ++i)
                prefix_enc.push_back(encode(e.fn, input.substr(0, i), 1024));
            for (int len = 1; len <= 48; ++len) {
                const size_t room = static_cast<size_t>(len > 2 ? len - 2 : 0);
                std::string want;
                for (const std::string& p : prefix_enc)
                    if (p.size() <= room) want = p;
                std::vector<char> sb(static_cast<size_t>(len) + 16, '#');
                std::string in = input;
                e.fn(sb.data(), len, in.data());
                ASSERT_TRUE(memchr(sb.data(), '\0', static_cast<size_t>(len)))
                    << e.name << " len " << len << ": not terminated";
                EXPECT_EQ(std::string(sb.data()), want) << e.name << " len " << len;
                for (size_t i = static_cast<size_t>(len); i < sb.size(); ++i)
                    ASSERT_EQ(sb[i], '#') << e.name << " wrote past len " << len;
            }
        }
    }
}

TEST(VxEncode, EscapeURLDecodingReadsCodeAfterPercent)
{
    struct Case {
        const char* text;
        char want;
    };
    const Case cases[] = {
        {"%124", '|'}, {"%2C", ','}, {"%2E", '.'}, {"%26", '&'},  {"%2F", '/'}, {"%39", '\''},
        {"%34", '"'},  {"%3A", ':'}, {"%3D", '='}, {"%5C", '\\'}, {"%5E", '^'}, {"%60", ' '},
        {"%41", 0},    {"%12", 0},   {"%7C", 0},   {"%", 0},      {"%2", 0},
    };
    for (const Case& c : cases) {
        std::string header = std::string("name") + c.text + "tail";
        char out[64] = "";
        EXPECT_EQ(escapeURLDecoding(header.data(), out, 5), c.want) << c.text;
    }
}

TEST(VxEncode, Base64MatchesRfc4648VectorsAndRejectsShortOutput)
{
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        /* the standard alphabet's last two letters, and zero bytes */
        {std::string("\xfb\xff", 2), "+/8="},
        {std::string("\x00\xff\xfe", 3), "AP/+"},
        {std::string("a\0b", 3), "YQBi"}};
    for (auto [in, want] : vectors) {
        int enc_len = -7;
        char* text = hblb_encode_text_to_base64(in.data(), static_cast<int>(in.size()), &enc_len);
        ASSERT_NE(text, nullptr) << want;
        EXPECT_EQ(std::string(text), want);
        EXPECT_EQ(enc_len, static_cast<int>(want.size()));
        free(text);

        unsigned char out[16];
        int n = hblb_encode_base64_ex(reinterpret_cast<unsigned char*>(in.data()),
                                      static_cast<int>(in.size()), out, sizeof out);
        ASSERT_EQ(n, static_cast<int>(want.size())) << want;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), static_cast<size_t>(n)), want);
    }
    unsigned char in[] = "foobar";
    unsigned char out[16];
    memset(out, '#', sizeof out);
    EXPECT_EQ(hblb_encode_base64_ex(in, 6, out, 4), -1);
    EXPECT_EQ(out[0], '#') << "a rejected call must not write";
    EXPECT_EQ(hblb_encode_base64_ex(in, 6, out, 9), 8) << "text and terminator fit exactly";
}

}  // namespace
