// Whole files read as text, for the tools' settings and vehicle files.
#ifndef UOZ_TOOLS_FILES_H
#define UOZ_TOOLS_FILES_H

#include <string>

namespace uoztools {

// The file's content; std::runtime_error "cannot read PATH" when it cannot
// be opened.
std::string read_text_file(const std::string &path);

}  // namespace uoztools

#endif
