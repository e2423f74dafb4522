// The new-channel wizard: where the feed comes from (an address, a local file or a channel
// plugin script with its parameters), a preview fetched in the background, the channel's
// name, ID and updates, and how the desktop reacts to its new items. Finishing writes the
// channel file and its desktop settings and asks the worker for the first update.
#pragma once

#include "app/feedPreview.h"

#include <QPointer>
#include <QString>
#include <QWizard>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace app {
struct Environment;
} // namespace app

namespace channels {
class ChannelManager;
} // namespace channels

namespace trayClient {

class ChannelDesktopSettingsTable;
class CSourcePage;
class CPreviewPage;
class CChannelPage;
class CDesktopPage;

// Runs previews on threads of its own and hands each result to the UI thread; only the newest
// request's result is delivered. Destruction cuts previews in progress short and joins them.
class CPreviewRunner : public QObject {
    Q_OBJECT
public:
    explicit CPreviewRunner(app::PreviewOptions options, QObject* parent = nullptr);
    ~CPreviewRunner() override;

    // Starts a preview of the address; a result of an earlier request will not be delivered.
    void start(const QString& address);
    bool isRunning() const { return m_running; }
    // Later previews read these formats; one under way is cut short.
    void setFeedFormats(const channels::FeedFormats& formats);

signals:
    void finished(const app::FeedPreview& preview);

private:
    void deliver(unsigned request, const app::FeedPreview& preview);

    app::PreviewOptions m_options;
    std::shared_ptr<app::FeedPreviewer> m_previewer;
    struct Job {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done; // set as the thread's last step
    };
    std::vector<Job> m_jobs;
    unsigned m_request = 0;
    bool m_running = false;
};

class CNewChannelWizard : public QWizard {
    Q_OBJECT
public:
    enum PageId { SourcePageId, PreviewPageId, ChannelPageId, DesktopPageId };
    enum class SourceKind { Address, File, Plugin };

    // The wizard starts at address when one is given (a page or another program asked for
    // it); the source page then shows it.
    CNewChannelWizard(channels::ChannelManager& manager, ChannelDesktopSettingsTable& settings,
                      app::Environment& environment, QWidget* parent = nullptr,
                      const QString& address = QString());
    ~CNewChannelWizard() override;

    // Puts an address on the source page and goes back there. Like every operation here, on
    // the UI thread only: another thread asks with a queued call.
    void setAddress(const QString& address);
    // The address or path the channel will read (an address without a scheme made http), or
    // the plugin script's path.
    QString source() const;
    SourceKind sourceKind() const;
    // The newest preview; empty before the first one ends.
    const app::FeedPreview& preview() const { return m_preview; }
    bool isPreviewRunning() const { return m_runner->isRunning(); }
    // Previews one of the feed links an HTML page offered (the preview page's list).
    void chooseFeedLink(int index);
    // Turns on the option the newest preview asked for (its formatOption), saves the global
    // options, tells the engine and previews the address again; false, with the preview
    // page's error showing why, when config.ini can't be written.
    bool turnOnFormatOption();
    // The ID of the channel finish added (empty until then).
    QString addedChannelId() const { return m_addedId; }

    // Writes the channel and its desktop settings and requests the first update; stays open
    // with a message when the channel can't be added.
    void accept() override;

signals:
    void previewFinished();
    void channelAdded(const QString& channelId);

private:
    friend class CSourcePage;
    friend class CPreviewPage;
    friend class CChannelPage;
    friend class CDesktopPage;

    void startPreview(const QString& address);
    void onPreview(const app::FeedPreview& preview);
    // Why the ID can't be used, or empty.
    QString idProblem(const QString& id) const;

    channels::ChannelManager& m_manager;
    ChannelDesktopSettingsTable& m_settings;
    app::Environment& m_environment;
    CPreviewRunner* m_runner;
    app::FeedPreview m_preview;
    QString m_previewedAddress; // a chosen feed link replaces the page's address
    QString m_addedId;
    CSourcePage* m_sourcePage;
    CPreviewPage* m_previewPage;
    CChannelPage* m_channelPage;
    CDesktopPage* m_desktopPage;
};

} // namespace trayClient
