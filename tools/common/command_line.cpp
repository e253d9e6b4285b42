#include "command_line.h"

#include <stdio.h>

#include <regex>

#include "exit_codes.h"

namespace uoztools {

namespace {

// The deepest command given on the line: the one an error is about.
const CLI::App *given_command(const CLI::App &app) {
    for (const CLI::App *command : app.get_subcommands())
        return given_command(*command);
    return &app;
}

// "uozctl dtc read" for the command read of dtc.
std::string command_path(const CLI::App *command, const std::string &tool) {
    std::string path;
    for (; command != nullptr && command->get_parent() != nullptr; command = command->get_parent())
        path = " " + command->get_name() + path;
    return tool + path;
}

std::string command_names(const CLI::App *command) {
    std::vector<std::string> names;
    for (const CLI::App *sub : command->get_subcommands([](const CLI::App *) { return true; }))
        names.push_back(sub->get_name());
    std::string text;
    for (size_t i = 0; i < names.size(); ++i)
        text += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
    return text;
}

std::string missing_command(const CLI::App &app, const CLI::App *command, const std::string &tool) {
    for (const std::string &word : app.remaining(true)) {
        if (!word.empty() && word[0] != '-')
            return "unknown command '" + word + "'";
    }
    std::string path = command_path(command, tool);
    return (command->get_parent() == nullptr ? "a command is required: "
                                             : "'" + path + "' needs a command: ") +
           command_names(command);
}

std::string unexpected(const CLI::App &app) {
    std::vector<std::string> words = app.remaining(true);
    if (words.size() == 1 && words[0].size() > 1 && words[0][0] == '-')
        return "unknown option '" + words[0] + "'";
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    return "unexpected argument" + std::string(words.size() == 1 ? "" : "s") + " '" + text + "'";
}

// The command whose help describes the option: the top level's own options
// are described there.
const CLI::App *help_for_option(const CLI::App &app, const CLI::App *command,
                                const std::string &name) {
    return app.get_option_no_throw(name) != nullptr ? &app : command;
}

}  // namespace

std::string usage_error_text(const CLI::App &app, const CLI::ParseError &error,
                             const std::string &tool) {
    const CLI::App *command = given_command(app);
    std::string text = error.what();
    std::smatch match;
    if (text.find("subcommand is required") != std::string::npos ||
        text.find("Subcommand required") != std::string::npos) {
        text = missing_command(app, command, tool);
    } else if (std::regex_match(text, match,
                                std::regex("(\\S+): At Most 1 required but received \\d+"))) {
        command = help_for_option(app, command, match[1].str());
        text = match[1].str() + " given more than once";
    } else if (dynamic_cast<const CLI::ExtrasError *>(&error) != nullptr) {
        text = unexpected(app);
    } else if (std::regex_match(text, match, std::regex("(\\S+) is required"))) {
        command = help_for_option(app, command, match[1].str());
        text = match[1].str() + " is required";
    } else if (std::regex_search(text, match, std::regex("^(--?[^\\s:]+)[: ]"))) {
        command = help_for_option(app, command, match[1].str());
    }
    return text + " (see " + command_path(command, tool) + " --help)";
}

void footer_only_at_top(CLI::App &app) {
    for (CLI::App *command : app.get_subcommands([](CLI::App *) { return true; })) {
        command->footer("");
        footer_only_at_top(*command);
    }
}

int parse_command_line(CLI::App &app, int argc, char **argv, const std::string &tool) {
    try {
        app.parse(argc, argv);
        return -1;
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error) == 0 ? kExitOk : kExitInvalidInput;
        fprintf(stderr, "%s: %s\n", tool.c_str(), usage_error_text(app, error, tool).c_str());
        return kExitInvalidInput;
    }
}

}  // namespace uoztools
