#include "trayClient/reportBox.h"

#include "lib/log/log.h"

#include <QApplication>
#include <QMessageBox>
#include <QThread>

#include <chrono>
#include <future>
#include <memory>

namespace trayClient {

namespace {

void execBox(const std::string& title, const std::string& report) {
    QMessageBox box(QMessageBox::Warning, QString::fromLatin1(title), QString::fromLatin1(report),
                    QMessageBox::Ok, nullptr);
    box.exec();
}

void showFromHandler(const std::string& title, const std::string& report) {
    showReportBox(title, report);
}

} // namespace

void showReportBox(const std::string& title, const std::string& report, int waitSeconds) {
    QCoreApplication* application = QCoreApplication::instance();
    if (!qobject_cast<QApplication*>(application))
        return; // no widgets to show it with: the report is on standard error and in the log
    if (QThread::currentThread() == application->thread()) {
        execBox(title, report);
        return;
    }
    auto taken = std::make_shared<std::promise<void>>();
    auto closed = std::make_shared<std::promise<void>>();
    std::future<void> takenFuture = taken->get_future();
    std::future<void> closedFuture = closed->get_future();
    QMetaObject::invokeMethod(
        application,
        [title, report, taken, closed] {
            taken->set_value();
            execBox(title, report);
            closed->set_value();
        },
        Qt::QueuedConnection);
    if (takenFuture.wait_for(std::chrono::seconds(waitSeconds)) == std::future_status::ready)
        closedFuture.wait();
}

void installReportBox() { msglog::setReportHandler(&showFromHandler); }

} // namespace trayClient
