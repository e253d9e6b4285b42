// Golden texts: the exact expected output of a test kept as data beside it.
// A golden file holds one "label<TAB>text" per line; empty lines and lines
// that start with '#' are comments.
#ifndef UOZ_TESTS_GOLDEN_H
#define UOZ_TESTS_GOLDEN_H

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>

namespace uoztest {

class Golden {
  public:
    // Reads <UOZ_GOLDEN_DIR>/<file>; a file that cannot be read fails the test.
    explicit Golden(const std::string &file) {
        std::ifstream in(std::string(UOZ_GOLDEN_DIR) + "/" + file);
        EXPECT_TRUE(in.good()) << "cannot read golden file " << file;
        std::string line;
        while (std::getline(in, line)) {
            size_t tab = line.find('\t');
            if (line.empty() || line[0] == '#' || tab == std::string::npos)
                continue;
            texts_[line.substr(0, tab)] = line.substr(tab + 1);
        }
    }
    bool has(const std::string &label) const { return texts_.count(label) != 0; }
    // Every label with its text, for tables whose rows are all data.
    const std::map<std::string, std::string> &entries() const { return texts_; }
    // The text of a label; a label the file lacks fails the test.
    std::string operator[](const std::string &label) const {
        auto found = texts_.find(label);
        EXPECT_NE(found, texts_.end()) << "no golden text labelled " << label;
        return found != texts_.end() ? found->second : "";
    }

  private:
    std::map<std::string, std::string> texts_;
};

// A query with its reply identifier written as "*", so that it compares with
// its golden text.
inline std::string without_reply_id(const std::string &query) {
    return std::regex_replace(query, std::regex(R"("reply-id": "[^"]*")"), R"("reply-id": "*")");
}

}  // namespace uoztest

#endif
