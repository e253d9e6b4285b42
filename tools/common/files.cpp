#include "files.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace uoztools {

std::string read_text_file(const std::string &path) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace uoztools
