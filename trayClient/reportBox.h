// The program's fatal and assertion reports, shown in a message box as well as logged.
#pragma once

#include <string>

namespace trayClient {

// Shows the report in a modal message box with the exclamation icon and an OK button, owned by
// no window, and returns when it is closed. On another thread than the user interface's, the
// box is handed to that thread; when it does not take it within the wait (it may be the thread
// that is stuck), the call returns without a box.
void showReportBox(const std::string& title, const std::string& report, int waitSeconds = 10);

// Makes every fatal or assertion report from now on show its box.
void installReportBox();

} // namespace trayClient
