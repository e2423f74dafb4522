#include "trayClient/subscriptionApprover.h"

#include "lib/log/log.h"

#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QThread>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace trayClient {

namespace {

msglog::MsgGroup& subscriptionGroup() { return msglog::registerMsgGroup("Subscriptions"); }

// An address may be 2048 characters long: the box shows its start and end.
QString shownAddress(const std::string& address) {
    const QString text = QString::fromLatin1(address.c_str());
    if (text.size() <= 200)
        return text;
    return text.left(140) + QString(u'\u2026') + text.right(50);
}

} // namespace

const char* const CSubscriptionApprover::kDeclined = "The user chose not to subscribe.";
const char* const CSubscriptionApprover::kNoAnswer = "The user did not answer in time.";
const char* const CSubscriptionApprover::kClosing = "Pelsu closed before the user answered.";

struct CSubscriptionApprover::Question {
    enum class Answer { None, Subscribe, Decline };
    std::string address;
    Answer answer = Answer::None; // under the state's mutex
    bool abandoned = false;       // the caller stopped waiting (under the mutex)
    QPointer<QMessageBox> box;    // UI thread only
};

struct CSubscriptionApprover::State {
    mutable std::mutex mutex;
    std::condition_variable changed;
    bool closed = false;
    std::vector<std::shared_ptr<Question>> waiting;
};

CSubscriptionApprover::CSubscriptionApprover(std::chrono::milliseconds answerTime, QObject* parent)
    : QObject(parent), m_answerTime(answerTime), m_state(std::make_shared<State>()) {}

CSubscriptionApprover::~CSubscriptionApprover() { close(); }

std::string CSubscriptionApprover::approveSubscription(const std::string& address) {
    // The UI thread would wait for itself: it never gets a question to answer.
    if (QThread::currentThread() == thread())
        return kNoAnswer;
    auto question = std::make_shared<Question>();
    question->address = address;
    const std::shared_ptr<State> state = m_state;
    std::unique_lock lock(state->mutex);
    if (state->closed)
        return kClosing;
    state->waiting.push_back(question);
    QMetaObject::invokeMethod(
        this, [this, question] { ask(question); }, Qt::QueuedConnection);
    const bool ended = state->changed.wait_for(lock, m_answerTime, [&] {
        return question->answer != Question::Answer::None || state->closed;
    });
    std::erase(state->waiting, question);
    question->abandoned = true;
    const Question::Answer answer = question->answer;
    lock.unlock();
    if (!ended) {
        QMetaObject::invokeMethod(
            this, [question] { dismiss(question); }, Qt::QueuedConnection);
        PELSU_LOG(subscriptionGroup(),
                  "No answer in time to the subscription question for " << address.substr(0, 200));
        return kNoAnswer;
    }
    if (answer == Question::Answer::Subscribe)
        return "";
    return answer == Question::Answer::Decline ? kDeclined : kClosing;
}

void CSubscriptionApprover::ask(const std::shared_ptr<Question>& question) {
    {
        std::lock_guard lock(m_state->mutex);
        if (question->abandoned || m_state->closed)
            return;
    }
    auto* box = new QMessageBox(QMessageBox::Question, "Pelsu",
                                "A web page asks to subscribe to " +
                                    shownAddress(question->address) + ". Subscribe?",
                                QMessageBox::NoButton);
    box->setTextFormat(Qt::PlainText); // the page chose the address
    QPushButton* subscribe = box->addButton("Subscribe", QMessageBox::AcceptRole);
    QPushButton* decline = box->addButton("Don't subscribe", QMessageBox::RejectRole);
    // A page asked, not the user: Enter alone must not subscribe.
    box->setDefaultButton(decline);
    box->setEscapeButton(decline);
    box->setWindowModality(Qt::NonModal);
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QDialog::finished, this, [this, question, box, subscribe] {
        answer(question, box->clickedButton() == subscribe);
    });
    question->box = box;
    box->show();
    box->raise();
    box->activateWindow();
    emit questionShown(box);
}

void CSubscriptionApprover::answer(const std::shared_ptr<Question>& question, bool subscribe) {
    {
        std::lock_guard lock(m_state->mutex);
        if (question->abandoned || m_state->closed || question->answer != Question::Answer::None)
            return;
        question->answer = subscribe ? Question::Answer::Subscribe : Question::Answer::Decline;
    }
    PELSU_LOG(subscriptionGroup(), "The user " << (subscribe ? "accepted" : "declined")
                                               << " the subscription to "
                                               << question->address.substr(0, 200));
    m_state->changed.notify_all();
}

void CSubscriptionApprover::dismiss(const std::shared_ptr<Question>& question) {
    if (question->box)
        question->box->close();
}

void CSubscriptionApprover::close() {
    std::vector<std::shared_ptr<Question>> waiting;
    {
        std::lock_guard lock(m_state->mutex);
        m_state->closed = true;
        waiting = m_state->waiting;
    }
    m_state->changed.notify_all();
    // At shut-down the event loop has ended: a box closed now would never be deleted.
    for (const auto& question : waiting)
        delete question->box.data();
}

bool CSubscriptionApprover::isClosed() const {
    std::lock_guard lock(m_state->mutex);
    return m_state->closed;
}

int CSubscriptionApprover::waiting() const {
    std::lock_guard lock(m_state->mutex);
    return static_cast<int>(m_state->waiting.size());
}

} // namespace trayClient

// Each class's meta-object code goes with its own object file, so that a program links only
// the classes it uses.
#include "moc_subscriptionApprover.cpp" // NOLINT(bugprone-suspicious-include)
