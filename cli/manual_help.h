// The long help (kavo --help-all) laid out as the manual page's source: help2man turns it
// into kavo.1 at build time, so the page lists exactly the subcommands and options that the
// parser accepts. "*Name*" lines open the page's sections, each subcommand's usage line
// (ending in a colon) a sub-section, and the indented "NAME  text" lines its entries.
#pragma once

#include <CLI/CLI.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kavocli {

class ManualHelpFormatter : public CLI::Formatter {
  public:
    // exit_statuses: (status, meaning), listed in the long help's exit-status section.
    explicit ManualHelpFormatter(std::vector<std::pair<int, std::string>> exit_statuses)
        : exit_statuses_(std::move(exit_statuses)) {}

    std::string make_help(const CLI::App* app, std::string name,
                          CLI::AppFormatMode mode) const override {
        if (mode != CLI::AppFormatMode::All)
            return CLI::Formatter::make_help(app, std::move(name), mode);
        std::ostringstream out;
        out << make_description(app) << make_usage(app, name) << make_groups(app, mode);
        const auto commands = app->get_subcommands({});
        if (!commands.empty()) {
            out << "\n*Commands*\n";
            for (const CLI::App* sub : commands) out << "\n" << command_entry(sub, name);
        }
        out << "\n*Exit status*\n\n";
        for (const auto& [status, meaning] : exit_statuses_) {
            CLI::detail::format_help(out, std::to_string(status), meaning, column_width_);
        }
        return out.str();
    }

  private:
    // "kavo convert [OPTIONS] IN OUT:", the description, then every argument and option.
    std::string command_entry(const CLI::App* sub, const std::string& program) const {
        std::string usage = make_usage(sub, program + " " + sub->get_name());
        const std::string label = get_label("Usage") + ": ";
        if (usage.compare(0, label.size(), label) == 0) usage.erase(0, label.size());
        while (!usage.empty() && usage.back() == '\n') usage.pop_back();
        std::string out = usage + ":\n  " + sub->get_description() + "\n\n";
        for (const CLI::Option* opt : sub->get_options({})) {
            if (opt == sub->get_help_ptr() || opt == sub->get_help_all_ptr()) continue;
            out += make_option(opt, opt->get_positional());
        }
        // The subcommand's own closing notes (not those it inherits from the program). Lines
        // indented by two spaces there are example command lines: they get a shell prompt,
        // which is how help2man tells them from text.
        const bool inherited =
            sub->get_parent() != nullptr && sub->get_footer() == sub->get_parent()->get_footer();
        std::istringstream footer(inherited ? std::string() : sub->get_footer());
        std::string line;
        bool first = true;
        while (std::getline(footer, line)) {
            if (first) out += "\n";
            first = false;
            if (line.size() > 2 && line.compare(0, 2, "  ") == 0 && line[2] != ' ')
                line.insert(2, "$ ");
            out += line + "\n";
        }
        return out;
    }

    std::vector<std::pair<int, std::string>> exit_statuses_;
};

}  // namespace kavocli
