// tools/common holds what every program of the project shares: command-line
// parsing, exit codes, the terminal, whole files, JSON look-ups and owned
// descriptors; one header each.
//
// Whole files read as text, for the tools' settings, configuration, vehicle
// and command files.
#ifndef UOZ_TOOLS_FILES_H
#define UOZ_TOOLS_FILES_H

#include <string>

namespace uoztools {

// The file's content; std::runtime_error "cannot read PATH" when it cannot
// be opened.
std::string read_text_file(const std::string &path);

// The file's content in *content; false with *error "cannot read PATH:
// <the system's reason>" when it cannot be opened.
bool read_text_file(const std::string &path, std::string *content, std::string *error);

}  // namespace uoztools

#endif
