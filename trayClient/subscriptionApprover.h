// The desktop client's answer to a web page that asks to subscribe: the listener's thread asks
// the user on the UI thread ("A web page asks to subscribe to ADDRESS. Subscribe?") and waits
// a bounded time for the answer. Shut-down releases every waiting listener at once, so the
// listeners can always be stopped.
#pragma once

#include "app/subscriptions.h"

#include <QObject>

#include <chrono>
#include <memory>
#include <string>

class QMessageBox;

namespace trayClient {

class CSubscriptionApprover : public QObject, public app::SubscriptionApprover {
    Q_OBJECT
public:
    // Why a subscription did not go ahead, as the asking page is told.
    static const char* const kDeclined;
    static const char* const kNoAnswer;
    static const char* const kClosing;

    // Lives on the UI thread; a question not answered within answerTime is a refusal. It must
    // outlive the threads that call it (the listeners stop before it goes).
    explicit CSubscriptionApprover(std::chrono::milliseconds answerTime = std::chrono::seconds(60),
                                   QObject* parent = nullptr);
    ~CSubscriptionApprover() override; // closes

    // Called on a listener's thread: shows the question (not modal, so the rest of the
    // client stays usable) and waits for the answer. Empty when the user chose to subscribe,
    // else the reason (kDeclined, kNoAnswer, or kClosing when closed meanwhile). A question
    // that times out is taken off the screen.
    std::string approveSubscription(const std::string& address) override;

    // On the UI thread, at shut-down: every waiting caller returns kClosing at once, their
    // questions close, and later calls return kClosing without asking.
    void close();
    bool isClosed() const;
    // How many callers wait for an answer right now.
    int waiting() const;

signals:
    // A question is on the screen (tests answer it through the box's buttons).
    void questionShown(QMessageBox* box);

private:
    struct Question;
    struct State;

    void ask(const std::shared_ptr<Question>& question);
    void answer(const std::shared_ptr<Question>& question, bool subscribe);
    static void dismiss(const std::shared_ptr<Question>& question);

    std::chrono::milliseconds m_answerTime;
    std::shared_ptr<State> m_state;
};

} // namespace trayClient
