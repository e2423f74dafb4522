// The options dialog edits every key within its bounds, saves through the options record and
// never writes the read-only keys; global.ini's script file types are edited only where they
// can be saved.
#include "trayClient/globalOptionsDialog.h"
#include "trayClient/uiStyle.h"

#include "lib/misc/profileFile.h"
#include "tests/support/testSupport.h"
#include "tests/trayClient/support/clientTestSupport.h"
#include "trayClient/optionEditors.h"
#include "trayClient/paramEditors.h"
#include "trayClient/scriptFileTypesPage.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QSpinBox>
#include <QTableWidget>

#include <gtest/gtest.h>
#include <limits>

#include <filesystem>

using namespace trayClient;
using app::GlobalOptions;
using testing_support::readFile;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

class GlobalOptionsDialogTest : public ::testing::Test {
protected:
    ~GlobalOptionsDialogTest() override { profile::clearCache(); }
    std::string config() const { return m_dir.file("config.ini"); }
    TempDir m_dir;
};

// Sets the key's editor to a value other than its default (for bounded numbers, the far bound,
// so that both ends of a range are saved and loaded) and puts the same value in expected.
void setOtherValue(const OptionEditorRow& entry, QWidget* editor, GlobalOptions& expected,
                   int index) {
    std::visit(
        [&](auto field) {
            using T = std::remove_cvref_t<decltype(expected.*field)>;
            T& value = expected.*field;
            if constexpr (std::is_same_v<T, bool>) {
                value = !value;
                qobject_cast<QCheckBox*>(editor)->setChecked(value);
            } else if constexpr (std::is_same_v<T, int>) {
                if (auto* combo = qobject_cast<QComboBox*>(editor)) {
                    combo->setCurrentIndex((value - entry.minimum + 1) % combo->count());
                    value = entry.minimum + combo->currentIndex();
                } else {
                    value = value == entry.maximum ? entry.minimum : entry.maximum;
                    qobject_cast<QSpinBox*>(editor)->setValue(value);
                }
            } else if constexpr (std::is_same_v<T, std::string>) {
                value = "Value " + std::to_string(index);
                if (auto* combo = qobject_cast<QComboBox*>(editor))
                    combo->setCurrentText(QString::fromStdString(value));
                else if (auto* chooser = qobject_cast<CFileChooser*>(editor))
                    chooser->setPath(QString::fromStdString(value));
                else
                    qobject_cast<QLineEdit*>(editor)->setText(QString::fromStdString(value));
            } else {
                value = 0x102030u + static_cast<unsigned>(index);
                qobject_cast<CColourButton*>(editor)->setColour(fromColourRef(value));
            }
        },
        entry.field);
}

bool sameValue(const OptionEditorRow& entry, const GlobalOptions& a, const GlobalOptions& b) {
    return std::visit([&](auto field) { return a.*field == b.*field; }, entry.field);
}

} // namespace

TEST_F(GlobalOptionsDialogTest, EveryKeyEditedRoundTripsThroughConfigIni) {
    GlobalOptions options;
    GlobalOptions expected;
    CGlobalOptionsDialog dialog(options, config(), "");
    int index = 0;
    for (const OptionEditorRow& entry : optionEditorRows()) {
        QWidget* editor = dialog.editorFor(QString::fromLatin1(entry.key));
        ASSERT_NE(editor, nullptr) << entry.key;
        if (!entry.readOnly)
            setOtherValue(entry, editor, expected, ++index);
    }
    // The two servers both went to the top port, which they can't share.
    expected.appServerPortNo = 1000;
    qobject_cast<QSpinBox*>(dialog.editorFor("AppServerPortNo"))->setValue(1000);
    dialog.accept();
    ASSERT_EQ(dialog.result(), QDialog::Accepted) << dialog.errorText().toStdString();

    // Every key the record writes has an editor (an option added later must get one too).
    for (const std::string& key : profile::listKeys(config(), "Global Options"))
        EXPECT_NE(dialog.editorFor(QString::fromStdString(key)), nullptr) << key;

    GlobalOptions reloaded;
    ASSERT_TRUE(reloaded.load(config(), ""));
    for (const OptionEditorRow& entry : optionEditorRows()) {
        EXPECT_TRUE(sameValue(entry, options, expected)) << "the caller's record: " << entry.key;
        if (std::string_view(entry.key) == "ControlCenterNonAutoUpdateChannelFgdCol")
            continue; // saved, but read back under another key
        EXPECT_TRUE(sameValue(entry, reloaded, expected)) << "config.ini: " << entry.key;
    }
    EXPECT_NE(
        readFile(config()).find("ControlCenterNonAutoUpdateChannelFgdCol=" +
                                std::to_string(expected.controlCenterNonAutoUpdateChannelFgdCol)),
        std::string::npos);
}

TEST_F(GlobalOptionsDialogTest, ReadOnlyKeysAreShownButNeverWritten) {
    const std::string readOnly = "_HttpUserAgent=Agent/9\nActivityLogFgdCol=255\n"
                                 "ActivityLogBgdCol=65280\nErrorLogFgdCol=16711680\n"
                                 "ErrorLogBgdCol=1\n";
    writeFile(config(), "[Global Options]\n" + readOnly);
    GlobalOptions options;
    ASSERT_TRUE(options.load(config(), ""));
    CGlobalOptionsDialog dialog(options, config(), "");
    for (const char* key : {"_HttpUserAgent", "ActivityLogFgdCol", "ErrorLogBgdCol"})
        EXPECT_FALSE(dialog.editorFor(QString::fromLatin1(key))->isEnabled()) << key;
    EXPECT_EQ(qobject_cast<QLineEdit*>(dialog.editorFor("_HttpUserAgent"))->text(), "Agent/9");
    dialog.accept();
    ASSERT_EQ(dialog.result(), QDialog::Accepted);
    const std::string text = readFile(config());
    EXPECT_NE(text.find(readOnly), std::string::npos) << text;

    // A file without them does not get them.
    TempDir other;
    GlobalOptions fresh;
    CGlobalOptionsDialog second(fresh, other.file("config.ini"), "");
    second.accept();
    const std::string written = readFile(other.file("config.ini"));
    for (const char* key : {"_HttpUserAgent", "ActivityLogFgdCol", "ActivityLogBgdCol",
                            "ErrorLogFgdCol", "ErrorLogBgdCol"})
        EXPECT_EQ(written.find(key), std::string::npos) << key;
}

TEST_F(GlobalOptionsDialogTest, EditorsKeepToBoundsTheLoaderAccepts) {
    GlobalOptions options;
    options.scriptTimeout = 301; // out of bounds in the record: the default is shown
    options.notificationBalloonDisplayTime = 0;
    options.maxActivityLogMsgs = 5'000'000; // a plain integer: shown, and kept, as it is
    CGlobalOptionsDialog dialog(options, config(), "");
    EXPECT_EQ(qobject_cast<QSpinBox*>(dialog.editorFor("MaxActivityLogMsgs"))->value(), 5'000'000);
    EXPECT_EQ(qobject_cast<QSpinBox*>(dialog.editorFor("ScriptTimeout"))->value(), 15);
    EXPECT_EQ(qobject_cast<QSpinBox*>(dialog.editorFor("NotificationBalloonDisplayTime"))->value(),
              30);

    for (const OptionEditorRow& entry : optionEditorRows()) {
        auto* spin = qobject_cast<QSpinBox*>(dialog.editorFor(QString::fromLatin1(entry.key)));
        if (!spin)
            continue;
        if (entry.maximum < std::numeric_limits<int>::max()) {
            spin->setValue(entry.maximum + 1);
            EXPECT_EQ(spin->value(), entry.maximum) << entry.key;
        }
        spin->setValue(entry.minimum - 1);
        EXPECT_EQ(spin->value(), entry.minimum) << entry.key;
        // Both ends of the editor's range survive loading: the two tables of bounds agree.
        for (int bound : {entry.minimum, entry.maximum}) {
            writeFile(config(), "[Global Options]\n" + std::string(entry.key) + "=" +
                                    std::to_string(bound) + "\n");
            profile::clearCache();
            GlobalOptions loaded;
            ASSERT_TRUE(loaded.load(config(), ""));
            EXPECT_EQ(loaded.*std::get<int GlobalOptions::*>(entry.field), bound) << entry.key;
        }
    }
    auto* height = qobject_cast<QComboBox*>(dialog.editorFor("MaxItemViewHeight"));
    ASSERT_EQ(height->count(), 4);
    EXPECT_EQ(height->itemText(0), "One quarter");
    EXPECT_EQ(height->itemText(3), "Unlimited");
    EXPECT_EQ(height->currentIndex(), 2);
    EXPECT_EQ(qobject_cast<QComboBox*>(dialog.editorFor("NotificationBalloonPosition"))->count(),
              4);
}

// Values the editors can't show (numbers below their range, colours beyond RGB) are saved as
// they were unless the user changes them.
TEST_F(GlobalOptionsDialogTest, OkKeepsStoredValuesTheEditorsCantShow) {
    GlobalOptions options;
    options.maxNotificationQueueLength = -7;
    options.maxConsecutiveChannelUpdateErrors = -1;
    options.maxErrorLogMsgs = -3;
    options.captionBarFgdCol = 0xFFFFFFFFu;
    options.captionBarBgdCol = 0x020000FF;
    const GlobalOptions before = options;
    CGlobalOptionsDialog dialog(options, config(), "");
    qobject_cast<QSpinBox*>(dialog.editorFor("MaxErrorLogMsgs"))->setValue(50);
    dialog.accept();
    ASSERT_EQ(dialog.result(), QDialog::Accepted) << dialog.errorText().toStdString();
    EXPECT_EQ(options.maxNotificationQueueLength, -7);
    EXPECT_EQ(options.maxConsecutiveChannelUpdateErrors, -1);
    EXPECT_EQ(options.maxErrorLogMsgs, 50);
    EXPECT_EQ(options.captionBarFgdCol, before.captionBarFgdCol);
    EXPECT_EQ(options.captionBarBgdCol, before.captionBarBgdCol);
}

TEST_F(GlobalOptionsDialogTest, AFailedSaveKeepsTheDialogOpenAndTheRecordUnchanged) {
    std::filesystem::create_directory(config()); // a folder where the file should be
    GlobalOptions options;
    CGlobalOptionsDialog dialog(options, config(), "");
    qobject_cast<QSpinBox*>(dialog.editorFor("ScriptTimeout"))->setValue(200);
    dialog.accept();
    EXPECT_NE(dialog.result(), QDialog::Accepted);
    EXPECT_TRUE(dialog.errorText().startsWith("Couldn't save the global options"))
        << dialog.errorText().toStdString();
    EXPECT_EQ(options.scriptTimeout, 15);
}

TEST_F(GlobalOptionsDialogTest, TheTwoLocalServersCantShareAPort) {
    GlobalOptions options;
    CGlobalOptionsDialog dialog(options, config(), "");
    qobject_cast<QSpinBox*>(dialog.editorFor("AppServerPortNo"))->setValue(2605);
    dialog.accept();
    EXPECT_NE(dialog.result(), QDialog::Accepted);
    EXPECT_TRUE(dialog.errorText().contains("different ports"));
    EXPECT_FALSE(std::filesystem::exists(config()));
    // Most of the engine's page is taken at start, and the page says so; the listeners move.
    auto restartNote = [&](const char* key) -> QLabel* {
        for (QWidget* up = dialog.editorFor(key); up; up = up->parentWidget())
            if (auto* note = up->findChild<QLabel*>("restartNote", Qt::FindDirectChildrenOnly))
                return note;
        return nullptr;
    };
    EXPECT_EQ(restartNote("AppServerPortNo"), nullptr) << "the listeners move at once";
    ASSERT_NE(restartNote("ScriptTimeout"), nullptr);
    EXPECT_TRUE(restartNote("ScriptTimeout")->text().contains("next time Pelsu starts"));
    EXPECT_EQ(restartNote("MdiTabs"), nullptr);
}

TEST_F(GlobalOptionsDialogTest, ScriptFileTypesAreSavedToAWritableGlobalIni) {
    const std::string globalIni = m_dir.file("global.ini");
    writeFile(globalIni, "[Script File Types]\nPython scripts=.py\nPerl scripts=.pl\n"
                         "[Scripting File Associations]\n.py=python3 %1 %*\n.pl=perl %1\n");
    GlobalOptions options;
    ASSERT_TRUE(options.load(config(), globalIni));
    CGlobalOptionsDialog dialog(options, config(), globalIni);
    CScriptFileTypesPage* page = dialog.scriptFileTypesPage();
    ASSERT_TRUE(page->isEditable());
    QTableWidget* types = page->typesTable();
    ASSERT_EQ(types->rowCount(), 2);
    types->removeRow(1); // Perl scripts
    types->insertRow(1);
    types->setItem(1, 0, new QTableWidgetItem("Ruby scripts"));
    types->setItem(1, 1, new QTableWidgetItem(".rb"));
    QTableWidget* commands = page->commandsTable();
    commands->insertRow(0);
    commands->setItem(0, 0, new QTableWidgetItem("RB")); // kept as ".rb"
    commands->setItem(0, 1, new QTableWidgetItem("ruby %1 %*"));
    dialog.accept();
    ASSERT_EQ(dialog.result(), QDialog::Accepted) << dialog.errorText().toStdString();

    profile::clearCache();
    GlobalOptions reloaded;
    ASSERT_TRUE(reloaded.load(config(), globalIni));
    const std::vector<std::pair<std::string, std::string>> expectedTypes{{"Python scripts", ".py"},
                                                                         {"Ruby scripts", ".rb"}};
    EXPECT_EQ(reloaded.scriptFileTypes, expectedTypes);
    EXPECT_EQ(reloaded.scriptFileTypeCommands.at(".rb"), "ruby %1 %*");
    EXPECT_EQ(reloaded.scriptFileTypeCommands.at(".py"), "python3 %1 %*");
    EXPECT_EQ(reloaded.scriptFileTypeCommands.at(".pl"), "perl %1");
}

// Tests run as root, who may write anywhere, so an unwritable folder is stood in for by one
// that does not exist; the permission check itself is access(W_OK) on the folder.
TEST_F(GlobalOptionsDialogTest, ScriptFileTypesAreReadOnlyWhereGlobalIniCantBeWritten) {
    EXPECT_TRUE(scriptFileTypesReadOnlyReason(m_dir.file("global.ini")).isEmpty());
    EXPECT_FALSE(scriptFileTypesReadOnlyReason("").isEmpty());
    const std::string globalIni = m_dir.file("missing/global.ini");
    EXPECT_TRUE(scriptFileTypesReadOnlyReason(globalIni).contains("can't be written"));

    GlobalOptions options;
    options.scriptFileTypes = {{"Python scripts", ".py"}};
    CGlobalOptionsDialog dialog(options, config(), globalIni);
    CScriptFileTypesPage* page = dialog.scriptFileTypesPage();
    EXPECT_FALSE(page->isEditable());
    EXPECT_NE(page->findChild<QWidget*>("readOnlyReason"), nullptr);
    EXPECT_EQ(page->typesTable()->editTriggers(), QAbstractItemView::NoEditTriggers);
    EXPECT_EQ(page->typesTable()->rowCount(), 1);
    dialog.accept();
    EXPECT_EQ(dialog.result(), QDialog::Accepted) << "the options are saved all the same";
    EXPECT_FALSE(std::filesystem::exists(globalIni));
}

int main(int argc, char** argv) { return client_testing::runClientTests(argc, argv); }
