// The census of a text, which no daemon sees: the library's own function, built into this program.
#include "../src/handles.hpp"
#include "../src/json_census.hpp"
#include "../src/json_document.hpp"
#include "../src/json_tree.hpp"
#include "device_test.hpp"

#include <ostream>

#include <fcntl.h>

using namespace vandrel;

namespace vandrel {

static std::ostream &operator<<(std::ostream &out, const json_counts &counts)
{
    return out << counts.objects << " objects, " << counts.arrays << " arrays, " << counts.texts << " texts, "
               << counts.scalars << " scalars, " << counts.nulls << " nulls, " << counts.keys << " keys, "
               << counts.text_bytes << " bytes";
}

} // namespace vandrel

namespace {

/// What json-c reads from the text alone, as from a file.
json_handle parsed(std::string_view text)
{
    const tokener_handle tokener{json_tokener_new()};
    return json_handle{json_tokener_parse_ex(tokener.get(), text.data(), static_cast<int>(text.size()))};
}

json_counts counted(std::string_view text, std::size_t chunk_size = 1 << 20)
{
    json_census census;
    for (; !text.empty(); text.remove_prefix(std::min(chunk_size, text.size())))
        census.read(text.substr(0, chunk_size));
    return census.counts();
}

std::string nested(std::size_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

} // namespace

TEST_F(device_test, a_text_counts_as_its_tree)
{
    using namespace std::literals;
    const struct {
        std::string_view text;
        json_counts counts; // objects, arrays, texts, scalars, nulls, keys, bytes
    } cases[] = {
        {"{}", {1}},
        {" \t\r\n[]", {0, 1}},
        {"[{},[2],'a',1,null]", {1, 2, 1, 2, 1, 0, 1}},
        {R"({"a":{"bc":[]},"d":null})", {2, 1, 0, 0, 1, 3, 4}},
        {R"({'a':"'#",})", {1, 0, 1, 0, 0, 1, 3}},
        {"[1,]", {0, 1, 0, 1}},
        {"[[1],2]", {0, 2, 0, 2}},
        {"[1,-2,3.5,1e5,1E-5,2e+5,1e,-0.,12]", {0, 1, 0, 9}},
        {"[true,TRUE,false,FALSE,null,NULL]", {0, 1, 0, 4, 2}},
        {"[NaN,nan,Infinity,infinity,-Infinity,-INFINITY]", {0, 1, 0, 6}},
        {"/* {/ */[/**///\n1/*,2*/,//3\n4] ", {0, 1, 0, 2}},
        {"[1]]", {0, 1, 0, 1}}, // behind the first value nothing counts
        {"{}{'a':1}", {1}},
        {"{} x", {1}},
        {"'a' 'b'", {0, 0, 1, 0, 0, 0, 1}},
        {"5 6", {0, 0, 0, 1}},
        {R"(["\"\\\/\b\f\n\r\t"])", {0, 1, 1, 0, 0, 0, 8}},
        {R"(["\u007f\u0080\u07ff\u0800\uffff"])", {0, 1, 1, 0, 0, 0, 1 + 2 + 2 + 3 + 3}},
        {R"(["\ud83d\ude00"])", {0, 1, 1, 0, 0, 0, 4}},
        {R"(["\ud83d","\ude00","\ud83dx","\ud83d\n","\ud83d\u0041","\ud83d\ud83d\ude00"])",
         {0, 1, 6, 0, 0, 0, 3 + 3 + 4 + 4 + 4 + 7}},
        {R"(["a\u0000b"])", {0, 1, 1, 0, 0, 0, 3}},
        {R"({"a\u0000b\u0000":0,"c":0})", {1, 0, 0, 2, 0, 2, 2}}, // a key ends at its first NUL
        {"[1234567890123456789012345678901]", {0, 1, 0, 1}},
    };
    for (const auto &[text, counts] : cases) {
        EXPECT_EQ(counted(text), counts) << text;
        EXPECT_EQ(counted(text, 1), counts) << text;
        EXPECT_EQ(counts_of(parsed(text).get()), counts) << text;
    }
    EXPECT_EQ(counted(nested(32)), counts_of(parsed(nested(32)).get()));
}

TEST_F(device_test, what_json_c_could_lose_or_drops_counts_in_the_text_alone)
{
    const struct {
        std::string_view text;
        json_counts counts;
    } cases[] = {
        {R"({"a":1,"a":'x'})", {1, 0, 1, 1, 0, 2, 3}},
        {"[12345678901234567890123456789012]", {0, 1, 0, 1, 0, 0, 1}},
    };
    for (const auto &[text, counts] : cases) {
        EXPECT_EQ(counted(text), counts) << text;
        EXPECT_NE(counts_of(parsed(text).get()), counts) << text;
    }
}

TEST_F(device_test, the_census_stops_where_json_c_stops)
{
    using namespace std::literals;
    const std::string_view cases[] = {
        "[1 2",       "[1}",          "{]",         "{a",           "{'a',",       "{'a' 1,",       "{'a':}",
        "[nxull,",    "[nuxl,",       "[nax,",      "[txe,",        "[fax,",       "[infx,",        "[-x,",
        "[1x,",       "[1..2,",       "[1ee2,",     "[1e5.,",       "[--1,",       "[+1,",          "[/x,",
        "['\\xn',",   "['\\X',",      "['\\\0',"sv, "['\\u00g00',", "['\\u00`0',", "['\\u00g0',/*", "['\\'',",
        "['\\ud83d'", "['\\ud83d\\x", "[\0"sv,      "{'a\0':["sv,   "/*\0/["sv,    "[1-,",
    };
    for (const std::string_view text : cases) {
        for (const char *rest : {"[],{}]", "'a'*/[],{}]"}) {
            const std::string continued = std::string{text} + rest;
            EXPECT_EQ(parsed(continued), nullptr) << continued;
            EXPECT_EQ(counted(continued).objects, counted(text).objects) << continued;
            EXPECT_EQ(counted(continued).arrays, counted(text).arrays) << continued;
        }
    }
    EXPECT_EQ(parsed(nested(33)), nullptr);
    EXPECT_EQ(counted(std::string(33, '[') + "],[").arrays, 32U);
}

TEST_F(device_test, the_census_knows_how_tables_grow)
{
    std::string members;
    for (int count = 1; count < 400; ++count) {
        members += (count == 1 ? "'" : ",'") + std::to_string(count) + "':1";
        const std::string text = "{" + members + "}";
        json_census census;
        census.read(text);
        const auto own = static_cast<std::size_t>(json_object_get_object(parsed(text).get())->size);
        EXPECT_EQ(census.table_slots(), 2 * own - 16) << count << ": each had twice the slots of the one before";
    }
    json_census census;
    census.read("[{'a':{'b':1}},{},");
    EXPECT_EQ(census.table_slots(), 48U);
}

TEST_F(device_test, a_document_ends_with_any_part_of_its_file)
{
    for (const std::size_t letters : {16382U, 16383U}) { // so that its last character is read with them, or alone
        write_file("/tmp/file", '"' + std::string(letters, 'x') + '"');
        const unique_fd file{open("/tmp/file", O_RDONLY | O_CLOEXEC)};
        EXPECT_NE(parse_whole_json(file.get()), nullptr) << letters;
    }
}

TEST_F(device_test, the_same_tree)
{
    const struct {
        const char *one, *other;
        bool is_same;
    } cases[] = {
        {R"({"a":[1,"b",null,true,{}],"c":NaN})", R"({'a':[1,"\u0062",null,true,{}],'c':nan})", true},
        {"{'a':1,'b':2}", "{'b':2,'a':1}", false},
        {"{'a':1}", "{'b':1}", false},
        {"{'a':1}", "{'a':1,'b':1}", false},
        {"{'a':1,'b':1}", "{'a':1}", false},
        {"{'a':1}", "{'a':2}", false},
        {"[1,2]", "[1]", false},
        {"[1]", "[1,2]", false},
        {"[1,2]", "[1,3]", false},
        {"['1']", "[1]", false},
        {"['a']", "['b']", false},
        {"[1.0]", "[1.00]", false},
        {"null ", "[]", false},
        {"null ", "null ", true},
    };
    for (const auto &[one, other, is_same] : cases)
        EXPECT_EQ(is_same_tree(parsed(one).get(), parsed(other).get()), is_same) << one << other;
}

TEST_F(device_test, trees_without_memory_to_compare_them_are_neither)
{
    int refused = 0;
    for (bool happened = true; happened; refused += happened) {
        const auto one = parsed("[1]"), other = parsed("[1]");
        const allocation_refusal refuse{refused + 1, "libjson-c.so"};
        try {
            EXPECT_TRUE(is_same_tree(one.get(), other.get())) << refused;
            happened = refuse.happened();
            EXPECT_FALSE(happened) << refused;
        } catch (const std::bad_alloc &) {
            EXPECT_TRUE(refuse.happened()) << refused;
        }
    }
    EXPECT_GE(refused, 2) << "of each side";
}
