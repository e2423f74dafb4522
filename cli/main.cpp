// pelsu-cli: the headless front end of the Pelsu channel engine.

#include "app/startup.h"
#include "cli/commands.h"
#include "cli/engine.h"

#include <cstring>
#include <iostream>
#include <string>

namespace {

constexpr const char* kVersion = PELSU_VERSION;

void printUsage(std::ostream& out) {
    out << "Pelsu Desktop Client " << kVersion << " - headless front end\n\n"
        << "Usage: pelsu-cli [--home DIR] COMMAND [ARGUMENTS]\n"
        << "       pelsu-cli --version | --help\n\n"
        << "Commands:\n";
    for (const cli::Command& command : cli::commands())
        out << "  " << command.name << ' ' << command.usage << "\n      " << command.summary
            << '\n';
    if (cli::commands().empty())
        out << "  (none yet)\n";
}

} // namespace

int main(int argc, char** argv) {
    cli::CommandContext context;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string option = argv[i];
        if (option == "--version") {
            std::cout << "pelsu-cli " << kVersion << '\n';
            return cli::kExitOk;
        }
        if (option == "--help" || option == "-h") {
            printUsage(std::cout);
            return cli::kExitOk;
        }
        if (option == "--home" && i + 1 < argc) {
            context.home = argv[++i];
            if (context.home.empty()) {
                std::cerr << "pelsu-cli: --home needs a directory\n\n";
                printUsage(std::cerr);
                return cli::kExitUsage;
            }
            continue;
        }
        std::cerr << "pelsu-cli: unknown option " << option << "\n\n";
        printUsage(std::cerr);
        return cli::kExitUsage;
    }
    if (i == argc) {
        printUsage(std::cout);
        return cli::kExitOk;
    }
    const std::string name = argv[i++];
    for (const cli::Command& command : cli::commands()) {
        if (name != command.name)
            continue;
        context.args.assign(argv + i, argv + argc);
        try {
            return command.run(context);
        } catch (const cli::UsageError& mistake) {
            std::cerr << "pelsu-cli " << command.name << ": " << mistake.what() << "\n"
                      << "usage: pelsu-cli " << command.name << ' ' << command.usage << '\n';
            return cli::kExitUsage;
        } catch (const app::StartupError& failure) {
            // The step's own message, then the system's reason on a line of its own.
            std::cerr << "pelsu-cli: " << cli::toUtf8(failure.what()) << '\n';
            if (!failure.detail().empty())
                std::cerr << "pelsu-cli: " << cli::toUtf8(failure.detail()) << '\n';
            return cli::kExitFailure;
        } catch (const std::exception& failure) {
            std::cerr << "pelsu-cli: " << cli::toUtf8(failure.what()) << '\n';
            return cli::kExitFailure;
        }
    }
    std::cerr << "pelsu-cli: unknown command " << name << "\n\n";
    printUsage(std::cerr);
    return cli::kExitUsage;
}
