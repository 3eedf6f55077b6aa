// The names and texts of the result codes: the same in <k9erepl/codes.h>, in <k9erepl/storage.h>
// and in docs/result-codes.md.
#include <gtest/gtest.h>

#include <k9erepl/codes.h>
#include <fstream>
#include <map>
#include <regex>
#include <string>

namespace k9erepl::test {

namespace {

struct NamedCode {
    std::string name;
    std::string text;
};

using Codes = std::map<std::uint32_t, NamedCode>;

Codes CodesOfTheHeader() {
    Codes codes;
#define K9EREPL_TEST_CODE(name, text) codes[name] = {#name, text};
    K9EREPL_CODES(K9EREPL_TEST_CODE)
#undef K9EREPL_TEST_CODE
    return codes;
}

// The rows "| `RC_OK` | 0 | success |" of the document.
Codes CodesOfTheDocument() {
    std::ifstream document(K9EREPL_REPOSITORY "/docs/result-codes.md");
    const std::regex row(R"(\| `(RC_\w+)` \| (\d+) \| (.*) \|)");
    Codes codes;
    std::smatch found;
    for (std::string line; std::getline(document, line);) {
        if (std::regex_match(line, found, row)) {
            codes[static_cast<std::uint32_t>(std::stoul(found[2]))] = {found[1], found[3]};
        }
    }
    return codes;
}

TEST(ResultCodes, EachHasItsNameAndText) {
    EXPECT_STREQ(K9eReplStorageCodeName(RC_OK), "RC_OK");
    EXPECT_STREQ(K9eReplStorageCodeText(RC_OK), "success");
    for (const auto& [code, named] : CodesOfTheHeader()) {
        EXPECT_EQ(K9eReplStorageCodeName(code), named.name);
        EXPECT_EQ(K9eReplStorageCodeText(code), named.text);
    }
}

TEST(ResultCodes, AnUnknownNumberIsCalledSo) {
    EXPECT_STREQ(K9eReplStorageCodeName(5), "unknown code");
    EXPECT_STREQ(K9eReplStorageCodeText(0xFFFFFFFF), "unknown code");
}

TEST(ResultCodes, TheListHasEveryCodeOfTheContract) {
    std::ifstream header(K9EREPL_REPOSITORY "/include/k9erepl/storage.h");
    const std::regex definition(R"(#define (RC_\w+) (\w+)u .*)");
    const Codes codes = CodesOfTheHeader();
    std::size_t defined = 0;
    std::smatch found;
    for (std::string line; std::getline(header, line);) {
        if (std::regex_match(line, found, definition)) {
            const auto value = static_cast<std::uint32_t>(std::stoul(found[2], nullptr, 0));
            ++defined;
            EXPECT_EQ(codes.count(value), 1U) << line;
        }
    }
    EXPECT_EQ(defined, codes.size());
}

TEST(ResultCodes, TheDocumentShowsTheSameList) {
    const Codes codes = CodesOfTheHeader();
    const Codes shown = CodesOfTheDocument();
    EXPECT_EQ(shown.size(), codes.size());
    for (const auto& [code, named] : codes) {
        const auto row = shown.find(code);
        ASSERT_NE(row, shown.end()) << named.name;
        EXPECT_EQ(row->second.name, named.name);
        EXPECT_EQ(row->second.text, named.text);
    }
}

}  // namespace

}  // namespace k9erepl::test
