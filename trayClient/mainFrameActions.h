// The main window's commands: one QAction each, with its keyboard shortcut (the desktop's
// standard key where there is one) and a name for assistive technology, placed in the menus
// and on the tool bar.
#pragma once

#include <QList>

class QAction;
class QDockWidget;
class QMainWindow;

namespace trayClient {

struct MainFrameActions {
    QAction* newChannel = nullptr;
    QAction* updateChannel = nullptr;
    QAction* updateAll = nullptr;
    QAction* channelProperties = nullptr;
    QAction* deleteChannel = nullptr;
    QAction* importOpml = nullptr;
    QAction* exportOpml = nullptr;
    QAction* globalOptions = nullptr;
    QAction* showControlCenter = nullptr; // the docks' own toggle actions
    QAction* showActivityLog = nullptr;
    QAction* showErrorLog = nullptr;
    QAction* markAllViewed = nullptr;
    QAction* nextUnviewedItem = nullptr;
    QAction* about = nullptr;
    QAction* exit = nullptr;

    QList<QAction*> all() const;
};

// Makes the actions as children of the window (the dock toggles from the docks given) and
// places them in the menus File, Channel, View and Help and on the tool bar "Main".
MainFrameActions createMainFrameActions(QMainWindow& window, QDockWidget& controlCenter,
                                        QDockWidget& activityLog, QDockWidget& errorLog);

} // namespace trayClient
