#include "files.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace uoztools {

bool read_text_file(const std::string &path, std::string *content, std::string *error) {
    // A directory opens and reads as empty: say what it is instead.
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        *error = "cannot read " + path + ": it is a directory";
        return false;
    }
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
        throw std::runtime_error(error);
    return content;
}

}  // namespace uoztools
