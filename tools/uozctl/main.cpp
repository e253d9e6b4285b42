// uozctl: UDS diagnostics from the shell, through libudsoverzelko.
//
// Results go to standard output (text, or JSON with --json, also for
// failures); messages, progress and the library's log lines go to standard
// error. Exit codes are those of every tool of the project (exit_codes.h).
// This file: the command line; commands.h lists the commands.
#include <string.h>

#include <CLI/CLI.hpp>
#include <map>

#include "command_line.h"
#include "commands.h"
#include "console.h"
#include "dtc_reports.h"
#include "exit_codes.h"
#include "hex_text.h"
#include "parse.h"
#include "terminal.h"

namespace {

using namespace uozctl;
using uoztools::kExitInvalidInput;
using uoztools::kExitOk;

struct Parsed {
    DtcRequest dtc;
    uint32_t group = 0xFFFFFF;
};

// A report type that queries may ask for, from the one report table.
bool supported_report(uint32_t report) {
    const uozuds::DtcReportType *type =
        report <= 0xFF ? uozuds::find_dtc_report(static_cast<uint8_t>(report)) : nullptr;
    return type != nullptr && uozuds::asked_by_queries(*type);
}

// The numbers of dtc read/clear, strictly; 0 or an exit code.
int parse_dtc_numbers(const Output &output, CLI::App *read, CLI::App *clear,
                      const std::map<std::string, std::string> &texts, Parsed *parsed) {
    std::string error;
    auto hex = [&](const char *option, uint32_t max, uint32_t *value) {
        return uoztools::parse_hex(texts.at(option), max, option, value, &error);
    };
    if (read->parsed()) {
        parsed->dtc.by_dtc_or_record = read->count("--dtc") + read->count("--record") > 0;
        bool ok = hex("--report", 0xFF, &parsed->dtc.report) &&
                  hex("--mask", 0xFF, &parsed->dtc.mask) &&
                  (read->count("--dtc") == 0 ||
                   uoztools::parse_dtc(texts.at("--dtc"), "--dtc", &parsed->dtc.dtc, &error)) &&
                  (read->count("--record") == 0 || hex("--record", 0xFF, &parsed->dtc.record));
        if (!ok)
            return output.fail(kExitInvalidInput, error);
        if (!supported_report(parsed->dtc.report)) {
            return output.fail(kExitInvalidInput,
                               "--report " + uozuds::hex_number(parsed->dtc.report, 2) +
                                   " is not supported (supported: 0x01-0x06, 0x09-0x16)");
        }
    }
    if (clear->parsed() &&
        !uoztools::parse_dtc(texts.at("--group"), "--group", &parsed->group, &error))
        return output.fail(kExitInvalidInput, error);
    return kExitOk;
}

bool wants_json(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0)
            return true;
    }
    return false;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"UDS diagnostics through libudsoverzelko.\n" +
                 std::string(uoztools::exit_code_help())};
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", std::string("uozctl ") + uoztools::project_version());
    app.footer(
        "ECU is a configured name (engine), a target address in hexadecimal (0x7E0) or 'all'.\n"
        "Numbers are hexadecimal, with or without 0x; DTCs may also be codes (P0301).\n"
        "Each command's options: uozctl COMMAND --help (e.g. uozctl dtc read --help).\n"
        "Exit code 4 also when only some ECUs failed: each ECU's line says how it went.\n\n"
        "Examples:\n"
        "  uozctl --config ecus.json check-config\n"
        "  uozctl --config ecus.json --certs pki/app dtc read engine --mask 0x08\n"
        "  uozctl --config ecus.json --certs pki/app --json dtc read all\n"
        "  uozctl --config ecus.json --certs pki/app dtc clear engine --group P0301");
    Context context;
    Options &options = context.options;
    app.add_option("--broker", options.broker, "broker HOST:PORT")->capture_default_str();
    app.add_option("--certs", options.certs,
                   "identity directory (private.pem, cert.pem; ../ca/ca.pem); needed by every "
                   "command that talks to the bus");
    // Required by every command; checked after parsing so that check-config
    // may take the file as its argument instead.
    app.add_option("--config", options.config, "ECU configuration file (required)");
    app.add_option("--debug", options.debug,
                   "library log level on standard error (-1 none .. 4 most)")
        ->check(CLI::Range(-1, 5));
    app.add_option("--timeout", options.timeout, "seconds to wait for a reply (1-10)")
        ->check(CLI::Range(1, UOZ_REPLY_TIMEOUT_SECONDS))
        ->capture_default_str();
    app.add_flag("--json", options.json, "machine-readable output, also for failures");

    app.add_subcommand("ecus", "list the configured ECUs (dropped entries on standard error)");
    auto *check = app.add_subcommand(
        "check-config", "say per entry what the library loads and what it drops, and why");
    check->add_option("FILE", options.config, "ECU configuration file (instead of --config)");

    auto *dtc = app.add_subcommand("dtc", "read or clear DTCs");
    dtc->require_subcommand(1);
    std::string ecu;
    std::map<std::string, std::string> texts = {{"--report", "0x02"},
                                                {"--mask", "0xFF"},
                                                {"--dtc", ""},
                                                {"--record", ""},
                                                {"--group", "0xFFFFFF"}};
    auto *read = dtc->add_subcommand("read", "ReadDTCInformation (0x19)");
    read->add_option("ECU", ecu, "ECU name, target address (0x7E0) or all")->required();
    read->add_option("--report", texts["--report"], "report subfunction, hex (0x02 or 02)")
        ->capture_default_str();
    auto *mask = read->add_option("--mask", texts["--mask"], "DTC status mask, hex (0x00-0xFF)")
                     ->capture_default_str();
    auto *dtc_option = read->add_option("--dtc", texts["--dtc"],
                                        "DTC: three bytes in hex (0x030100) or a code (P0301)");
    read->add_option("--record", texts["--record"], "record number, hex (0x00-0xFF)");
    mask->excludes(dtc_option);
    auto *clear = dtc->add_subcommand("clear", "ClearDiagnosticInformation (0x14)");
    clear->add_option("ECU", ecu, "ECU name, target address or all")->required();
    clear
        ->add_option("--group", texts["--group"],
                     "group of DTC: three bytes in hex (0xFFFFFF: all) or a code (P0301)")
        ->capture_default_str();

    auto *version = app.add_subcommand("version", "read an ECU's version");
    version->add_option("ECU", ecu, "ECU name or target address")->required();

    std::string document;
    auto *run = app.add_subcommand("run", "check and run a remote command document");
    run->add_option("FILE", document, "remote command document (JSON)")->required();

    DiscoverRequest discover_request;
    CLI::App *discover = add_doip_commands(app, &discover_request);

    std::string consent_kind, campaign;
    auto *consent =
        app.add_subcommand("consent", "give download or install consent for a campaign");
    consent->add_option("KIND", consent_kind, "download or install")
        ->required()
        ->check(CLI::IsMember({"download", "install"}));
    consent->add_option("CAMPAIGN", campaign, "campaign id")->required();

    uoztools::footer_only_at_top(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error) == 0 ? kExitOk : kExitInvalidInput;
        context.output.set_json(wants_json(argc, argv));
        return context.output.fail(kExitInvalidInput,
                                   uoztools::usage_error_text(app, error, "uozctl"));
    }
    context.output.set_json(options.json);
    if (discover->parsed())
        return run_doip_discover(context, discover_request);
    if (options.config.empty())
        return context.output.fail(kExitInvalidInput,
                                   "--config FILE is required: the ECU configuration file");
    Console console;
    context.output.send_results_to(console.results());
    context.output.read_replies_from(&console);
    uoz_dbg_level = options.debug;
    Parsed parsed;
    if (int rc = parse_dtc_numbers(context.output, read, clear, texts, &parsed))
        return rc;
    parsed.dtc.ecu = ecu;
    if (app.got_subcommand("ecus"))
        return run_ecus(context, false);
    if (check->parsed())
        return run_ecus(context, true);
    if (read->parsed())
        return run_dtc_read(context, parsed.dtc);
    if (clear->parsed())
        return run_dtc_clear(context, ecu, parsed.group);
    if (version->parsed())
        return run_version(context, ecu);
    if (run->parsed())
        return run_document(context, document);
    if (consent->parsed())
        return run_consent(context, consent_kind, campaign);
    return kExitInvalidInput;
}
