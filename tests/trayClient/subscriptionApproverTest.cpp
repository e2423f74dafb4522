// Web pages' subscriptions in the desktop client: a listener's thread asks the user on the UI
// thread and gets the answer, a refusal when no answer comes in time, and is released at once
// at shut-down.
#include "trayClient/subscriptionApprover.h"

#include "tests/trayClient/support/clientTestSupport.h"

#include <QAbstractButton>
#include <QApplication>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

using namespace trayClient;
using client_testing::waitFor;
using namespace std::chrono_literals;

namespace {

// A listener's request on a thread of its own.
std::future<std::string> askOnListenerThread(CSubscriptionApprover& approver,
                                             const std::string& address) {
    return std::async(std::launch::async,
                      [&approver, address] { return approver.approveSubscription(address); });
}

bool isReady(std::future<std::string>& answer) {
    return answer.wait_for(0s) == std::future_status::ready;
}

QAbstractButton* button(QMessageBox& box, const QString& text) {
    for (QAbstractButton* candidate : box.buttons())
        if (candidate->text() == text)
            return candidate;
    return nullptr;
}

class SubscriptionApproverTest : public ::testing::Test {
protected:
    void watch(CSubscriptionApprover& approver) {
        QObject::connect(&approver, &CSubscriptionApprover::questionShown,
                         [this](QMessageBox* box) { boxes.push_back(box); });
    }
    std::vector<QPointer<QMessageBox>> boxes;
};

} // namespace

TEST_F(SubscriptionApproverTest, TheUsersAnswerGoesBackToTheAskingThread) {
    CSubscriptionApprover approver(10s);
    watch(approver);
    auto first = askOnListenerThread(approver, "http://example.com/a.xml");
    auto second = askOnListenerThread(approver, "http://example.com/b.xml");
    ASSERT_TRUE(waitFor([&] { return boxes.size() == 2; }));
    EXPECT_EQ(approver.waiting(), 2);
    for (QMessageBox* box : {boxes[0].data(), boxes[1].data()}) {
        EXPECT_FALSE(box->isModal());
        EXPECT_EQ(static_cast<QAbstractButton*>(box->defaultButton()),
                  button(*box, "Don't subscribe"));
    }
    // The questions may be shown in either order: each answer reaches its own asker.
    const bool firstIsA = boxes[0]->text().contains("a.xml");
    EXPECT_EQ(boxes[firstIsA ? 0 : 1]->text(),
              "A web page asks to subscribe to http://example.com/a.xml. Subscribe?");
    button(*boxes[firstIsA ? 1 : 0], "Don't subscribe")->click();
    ASSERT_TRUE(waitFor([&] { return isReady(second); }));
    EXPECT_FALSE(isReady(first));
    button(*boxes[firstIsA ? 0 : 1], "Subscribe")->click();
    EXPECT_EQ(first.get(), "");
    EXPECT_EQ(second.get(), CSubscriptionApprover::kDeclined);
    EXPECT_TRUE(waitFor([&] { return !boxes[0] && !boxes[1]; })); // closed boxes go away
    EXPECT_EQ(approver.waiting(), 0);
}

TEST_F(SubscriptionApproverTest, NoAnswerInTimeIsARefusalAndTheQuestionGoes) {
    CSubscriptionApprover approver(300ms);
    watch(approver);
    auto answer = askOnListenerThread(approver, "http://example.com/feed");
    ASSERT_TRUE(waitFor([&] { return boxes.size() == 1; }));
    ASSERT_TRUE(waitFor([&] { return isReady(answer); }));
    EXPECT_EQ(answer.get(), CSubscriptionApprover::kNoAnswer);
    EXPECT_TRUE(waitFor([&] { return !boxes[0]; }));
}

TEST_F(SubscriptionApproverTest, ClosingReleasesWaitingListenersAndRefusesLaterOnes) {
    CSubscriptionApprover approver(60s);
    watch(approver);
    auto shown = askOnListenerThread(approver, "http://example.com/one");
    ASSERT_TRUE(waitFor([&] { return boxes.size() == 1; }));
    const auto start = std::chrono::steady_clock::now();
    approver.close();
    // Released without the event loop: shut-down waits for the listeners right after this.
    EXPECT_EQ(shown.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(shown.get(), CSubscriptionApprover::kClosing);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_TRUE(waitFor([&] { return !boxes[0]; }));

    auto later = askOnListenerThread(approver, "http://example.com/two");
    EXPECT_EQ(later.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(later.get(), CSubscriptionApprover::kClosing);
    QApplication::processEvents();
    EXPECT_EQ(boxes.size(), 1u);
}

TEST_F(SubscriptionApproverTest, AQuestionStillQueuedAtCloseIsNeverShown) {
    CSubscriptionApprover approver(60s);
    watch(approver);
    auto answer = askOnListenerThread(approver, "http://example.com/queued");
    // The question is posted but the UI thread has not run it yet.
    while (approver.waiting() == 0)
        std::this_thread::sleep_for(1ms);
    approver.close();
    EXPECT_EQ(answer.get(), CSubscriptionApprover::kClosing);
    QApplication::processEvents();
    EXPECT_TRUE(boxes.empty());
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
