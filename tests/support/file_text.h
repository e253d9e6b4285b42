// A file's whole content, for tests that compare or parse it.
#ifndef UOZ_TESTS_FILE_TEXT_H
#define UOZ_TESTS_FILE_TEXT_H

#include <fstream>
#include <sstream>
#include <string>

namespace uoztest {

// "" when the file cannot be read.
inline std::string file_text(const std::string &path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace uoztest

#endif
