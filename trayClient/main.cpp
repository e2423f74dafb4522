// pelsu: the desktop client of the Pelsu channel engine, in the notification area.

#include "trayClient/reportBox.h"
#include "trayClient/trayClient.h"
#include "trayClient/webPane.h"

#include <QApplication>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>

namespace {

constexpr const char* kVersion = PELSU_VERSION;

void printUsage(std::ostream& out) {
    out << "Pelsu Desktop Client " << kVersion << "\n\n"
        << "Usage: pelsu [--home DIR] [ADDRESS]\n"
        << "       pelsu --version | --help\n\n"
        << "Shows the channels' news in the notification area. --home DIR keeps everything\n"
        << "under DIR (default: $PELSU_HOME, else $XDG_DATA_HOME/pelsu). With an ADDRESS (a\n"
        << "feed's or a web page's, feed: ones too, or a local file) the new-channel wizard\n"
        << "opens with it, in the Pelsu that is already running if there is one.\n";
}

// What a browser hands over ("feed:https://...", "feed://host/...") or a file named on the
// command line, as the wizard takes it.
std::string wizardAddress(const std::string& given) {
    std::string address = given;
    if (address.rfind("feed://", 0) == 0)
        address = "http://" + address.substr(7);
    else if (address.rfind("feed:", 0) == 0)
        address = address.substr(5);
    if (address.find("://") == std::string::npos && std::filesystem::exists(address))
        address = std::filesystem::absolute(address).lexically_normal().string();
    return address;
}

bool isSet(const char* name) {
    const char* value = std::getenv(name);
    return value && *value;
}

} // namespace

int main(int argc, char** argv) {
    std::string home;
    std::optional<std::string> address;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--version") {
            std::cout << "pelsu " << kVersion << '\n';
            return 0;
        }
        if (option == "--help" || option == "-h") {
            printUsage(std::cout);
            return 0;
        }
        if (option == "--home" && i + 1 < argc && *argv[i + 1]) {
            home = argv[++i];
            continue;
        }
        if (!address && !option.empty() && option[0] != '-') {
            address = wizardAddress(option);
            continue;
        }
        std::cerr << "pelsu: unknown option " << option << "\n\n";
        printUsage(std::cerr);
        return 2;
    }
    // Without a display Qt would end the process with its own message; say what is missing.
    if (!isSet("QT_QPA_PLATFORM") && !isSet("DISPLAY") && !isSet("WAYLAND_DISPLAY")) {
        std::cerr << "pelsu: Initialization failed.\n\nThere is no display to show the client on "
                     "(DISPLAY and WAYLAND_DISPLAY are unset). pelsu-cli run keeps the channels "
                     "up to date without one.\n";
        return 1;
    }
    // Before any thread starts, so that every thread leaves the signals to the handler.
    trayClient::CTrayClientApp::catchTerminationSignals();
    // The browser engine refuses to start its sandbox as root; pages then run without it.
    if (trayClient::CWebPane::prepareEngineEnvironment())
        std::cerr << "pelsu: running as root: web pages are shown without the browser engine's "
                     "sandbox.\n";
    QApplication application(argc, argv);
    // The toolkit took the user's locale; the engine's text rules (names and entities that
    // ignore case, extensions, schemes) fold letters as in the "C" locale, as in pelsu-cli,
    // whatever the language (a Turkish locale folds "I" to a dotless i).
    if (!std::setlocale(LC_CTYPE, "C.UTF-8"))
        std::setlocale(LC_CTYPE, "C");
    // A fatal or assertion report is shown to the user too, not only written to the log.
    trayClient::installReportBox();
    QApplication::setApplicationName("Pelsu");
    QApplication::setApplicationVersion(kVersion);

    trayClient::CTrayClientApp::Options options;
    options.application.home = home;
    options.application.newChannelAddress = address;
    options.program = QApplication::applicationFilePath().toStdString();
    if (!home.empty())
        options.arguments = {"--home", std::filesystem::absolute(home).string()};
    const QString platform = QGuiApplication::platformName();
    options.hasDisplay = platform != "offscreen" && platform != "minimal";
    trayClient::CTrayClientApp client;
    const int status = client.run(options);
    // Everything is saved and the shut-down is logged. A browser engine that was started can
    // hang in its own teardown at exit (its helper processes end with this one), so a program
    // that showed pages ends here.
    if (trayClient::CWebPane::engineStarted()) {
        std::cout.flush();
        std::cerr.flush();
        std::_Exit(status);
    }
    return status;
}
