#include "trayClient/uiStyle.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QVBoxLayout>

#include <QPalette>
#include <QWidget>

namespace trayClient {

QColor fromColourRef(app::ColourRef colour) {
    return QColor(static_cast<int>(colour & 0xFFu), static_cast<int>((colour >> 8) & 0xFFu),
                  static_cast<int>((colour >> 16) & 0xFFu));
}

app::ColourRef toColourRef(const QColor& colour) {
    return static_cast<app::ColourRef>(colour.red()) |
           (static_cast<app::ColourRef>(colour.green()) << 8) |
           (static_cast<app::ColourRef>(colour.blue()) << 16);
}

QFont fontFromOptions(const std::string& family, int pointSize, bool italic) {
    QFont font(QString::fromLatin1(family.c_str()));
    // A family the desktop lacks still gets a font of the right kind: the log panes' default
    // "Courier New" is missing from most Linux desktops and must stay fixed-width.
    const QString name = font.family();
    const bool fixed =
        name.contains("Courier", Qt::CaseInsensitive) || name.contains("Mono", Qt::CaseInsensitive);
    font.setStyleHint(fixed ? QFont::TypeWriter : QFont::AnyStyle);
    if (pointSize > 0)
        font.setPointSize(pointSize);
    font.setItalic(italic);
    return font;
}

void setViewColours(QWidget& view, const QColor& text, const QColor& background) {
    QPalette palette = view.palette();
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::Base, background);
    palette.setColor(QPalette::AlternateBase, background);
    view.setPalette(palette);
}

void layOutEditDialog(QDialog& dialog, QWidget* content, QLabel& error) {
    auto* layout = new QVBoxLayout(&dialog);
    layout->addWidget(content, 1);
    error.setObjectName(QStringLiteral("error"));
    error.setWordWrap(true);
    error.setStyleSheet(QStringLiteral("color: #b00000"));
    error.hide();
    layout->addWidget(&error);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
    QObject::connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    layout->addWidget(buttons);
}

} // namespace trayClient
