// Expected outputs kept as data beside the tests, so that long texts and
// byte strings stay exact and out of the code. Two forms:
//
// A table, one case a line (Golden): "label<TAB>text"; empty lines and lines
// that start with '#' are comments. For one-line texts such as JSON queries.
//
// Cases of several fields (golden_cases), for multi-line outputs:
//
//   == name of the case
//   @args dtc read engine
//   @code 0
//   @out
//   engine (0x7E0)
//     report 0x02: DTCs by status mask
//   @err
//
// "@key value" on one line is that text. A key alone on its line takes the
// lines below it, each with its newline, up to the next field or case (none:
// the empty text). "{NAME}" anywhere is replaced by the test's value for
// NAME. Lines before the first case are comments.
#ifndef UOZ_TESTS_GOLDEN_H
#define UOZ_TESTS_GOLDEN_H

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "file_text.h"

namespace uoztest {

class Golden {
  public:
    // Reads the table at path; a file that cannot be read fails the test.
    explicit Golden(const std::string &path) {
        std::ifstream in(path);
        EXPECT_TRUE(in.good()) << "cannot read golden file " << path;
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


struct GoldenCase {
    std::string name;
    std::map<std::string, std::string> fields;
    bool has(const std::string &key) const { return fields.count(key) != 0; }
    const std::string &operator[](const std::string &key) const {
        auto found = fields.find(key);
        if (found == fields.end())
            throw std::runtime_error("case " + name + " has no @" + key);
        return found->second;
    }
};

inline std::string with_values(std::string text, const std::map<std::string, std::string> &values) {
    for (const auto &[name, value] : values) {
        const std::string mark = "{" + name + "}";
        size_t at = text.find(mark);
        while (at != std::string::npos) {
            text.replace(at, mark.size(), value);
            at = text.find(mark, at + value.size());
        }
    }
    return text;
}

// True when text is the pattern, where each '*' stands for any run of
// characters.
inline bool matches(const std::string &text, const std::string &pattern) {
    size_t star = pattern.find('*');
    if (star == std::string::npos)
        return text == pattern;
    if (text.compare(0, star, pattern, 0, star) != 0)
        return false;
    // The piece after each further '*' is found as early as it can be; the
    // last piece must end the text.
    size_t at = star;
    for (size_t from = star + 1;;) {
        size_t next = pattern.find('*', from);
        std::string piece = pattern.substr(from, next - from);
        if (next == std::string::npos)
            return text.size() >= at + piece.size() &&
                   text.compare(text.size() - piece.size(), piece.size(), piece) == 0;
        at = text.find(piece, at);
        if (at == std::string::npos)
            return false;
        at += piece.size();
        from = next + 1;
    }
}

// Every case of the file; throws when it cannot be read or holds none.
inline std::vector<GoldenCase> golden_cases(const std::string &path,
                                            const std::map<std::string, std::string> &values = {}) {
    std::vector<GoldenCase> cases;
    std::string *open_field = nullptr;
    std::string text = with_values(file_text(path), values);
    for (size_t at = 0, end = 0; at < text.size(); at = end + 1) {
        end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end;
        std::string line = text.substr(at, end - at);
        size_t space = line.find(' ');
        if (line.rfind("== ", 0) == 0) {
            cases.push_back({line.substr(3), {}});
            open_field = nullptr;
        } else if (!cases.empty() && line.rfind('@', 0) == 0) {
            std::string key =
                line.substr(1, space == std::string::npos ? std::string::npos : space - 1);
            std::string &field = cases.back().fields[key];
            field = space == std::string::npos ? "" : line.substr(space + 1);
            open_field = space == std::string::npos ? &field : nullptr;
        } else if (open_field != nullptr) {
            *open_field += line + "\n";
        }
    }
    if (cases.empty())
        throw std::runtime_error("no cases in " + path);
    return cases;
}

// Each case's @<input> given to `read` must be refused with a
// std::runtime_error whose text is exactly the case's @error.
template <typename Read>
void expect_refusals(const std::string &path, const char *input, Read read) {
    for (const GoldenCase &bad : golden_cases(path)) {
        try {
            read(bad[input]);
            ADD_FAILURE() << bad.name << " accepted";
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(error.what(), bad["error"]) << bad.name;
        }
    }
}

}  // namespace uoztest

#endif
