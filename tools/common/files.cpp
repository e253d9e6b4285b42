#include "files.h"

#include <errno.h>
#include <string.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace uoztools {

bool read_text_file(const std::string &path, std::string *content, std::string *error) {
    std::ifstream file(path);
    if (!file) {
        *error = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    std::stringstream text;
    text << file.rdbuf();
    *content = text.str();
    return true;
}

std::string read_text_file(const std::string &path) {
    std::string content, error;
    if (!read_text_file(path, &content, &error))
        throw std::runtime_error("cannot read " + path);
    return content;
}

}  // namespace uoztools
