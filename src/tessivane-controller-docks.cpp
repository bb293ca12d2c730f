// SPDX-License-Identifier: GPL-2.0-or-later
// Handing the panels to OBS, taking them back, and the look they share.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QAccessible>
#include <QApplication>
#include <QDockWidget>
#include <QEvent>
#include <QFrame>
#include <QJsonArray>
#include <QLabel>
#include <QList>
#include <QMainWindow>
#include <QScrollArea>
#include <QScrollBar>
#include <QTextBoundaryFinder>
#include <QVBoxLayout>

#include <obs-config.h>
#include <obs-frontend-api.h>
#include <util/config-file.h>

#if LIBOBS_API_MAJOR_VER < 31
#include <dlfcn.h>
#endif

namespace {
// Holds a panel's content. The dock around it may grow shorter than the content, down to a line
// or two, and the content then scrolls; but never narrower: nothing scrolls sideways.
class PanelScroll : public QScrollArea {
public:
    using QScrollArea::QScrollArea;

    QSize minimumSizeHint() const override
    {
        const int content = widget() ? widget()->minimumSizeHint().width() : 0;
        return {qMax(QScrollArea::minimumSizeHint().width(),
                     content + verticalScrollBar()->sizeHint().width()),
                shortestScroll};
    }

protected:
    bool viewportEvent(QEvent *event) override
    {
        // The content's layout changed, and with it perhaps its width: the dock asks again.
        if (event->type() == QEvent::LayoutRequest)
            updateGeometry();
        return QScrollArea::viewportEvent(event);
    }
};
} // namespace

const char tessivaneStyleSheet[] = R"(
QWidget#TessivaneRoot {
    background: qradialgradient(cx:0.10, cy:0.05, radius:1.05, fx:0.10, fy:0.05, stop:0 rgba(32, 116, 99, 210), stop:0.36 rgba(7, 29, 27, 245), stop:1 rgba(3, 11, 11, 255));
    color: #f5fffd;
    font-family: "Segoe UI Variable", "Segoe UI", sans-serif;
    font-size: 13px;
}
QFrame#TessivanePanel {
    background: rgba(20, 47, 44, 208);
    border: 1px solid rgba(186, 255, 239, 54);
    border-radius: 12px;
}
QLabel#TessivaneBrand {
    color: #43f5ce;
    font-size: 11px;
    font-weight: 800;
}
QLabel#TessivaneHeading {
    color: #f9fffe;
    font-size: 19px;
    font-weight: 800;
}
QLabel#TessivaneValue {
    color: #f9fffe;
    font-size: 16px;
    font-weight: 800;
}
QLabel#TessivaneMuted {
    color: #9ebbb6;
}
QLineEdit, QTextEdit, QComboBox, QListWidget {
    background: rgba(1, 14, 13, 205);
    color: #f5fffd;
    border: 1px solid rgba(186, 255, 239, 48);
    border-radius: 10px;
    padding: 9px;
    selection-background-color: #218d78;
}
QLineEdit:focus, QTextEdit:focus, QComboBox:focus, QListWidget:focus {
    border: 1px solid #43f5ce;
}
QPushButton, QToolButton {
    background: qlineargradient(x1:0, y1:0, x2:1, y2:1, stop:0 rgba(55, 188, 159, 190), stop:1 rgba(19, 94, 80, 205));
    color: #ffffff;
    border: 1px solid rgba(120, 255, 226, 118);
    border-radius: 10px;
    padding: 9px 13px;
    font-weight: 700;
}
QPushButton:hover, QToolButton:hover {
    background: rgba(72, 213, 181, 188);
    border-color: #75ffe1;
}
QPushButton:pressed, QToolButton:pressed {
    background: rgba(20, 105, 89, 230);
}
QPushButton:focus, QToolButton:focus {
    border: 2px solid #43f5ce;
    padding: 8px 12px;
}
QPushButton:disabled, QToolButton:disabled {
    background: rgba(31, 45, 43, 185);
    color: #66807b;
    border-color: rgba(183, 216, 210, 28);
}
QCheckBox {
    spacing: 9px;
    color: #e9faf6;
}
QCheckBox::indicator {
    width: 28px;
    height: 16px;
}
QCheckBox::indicator:unchecked {
    background: rgba(28, 45, 42, 210);
    border: 1px solid rgba(190, 220, 214, 80);
    border-radius: 8px;
}
QCheckBox::indicator:checked {
    background: #35d9b7;
    border: 1px solid #75ffe1;
    border-radius: 8px;
}
QCheckBox::indicator:focus {
    border: 2px solid #f9fffe;
    width: 26px;
    height: 14px;
}
QScrollArea {
    border: 0;
    background: transparent;
}
QScrollBar:vertical {
    background: rgba(2, 13, 12, 120);
    width: 9px;
    margin: 2px;
}
QScrollBar::handle:vertical {
    background: rgba(125, 196, 181, 105);
    border-radius: 4px;
    min-height: 24px;
}
QScrollBar::add-line:vertical, QScrollBar::sub-line:vertical {
    height: 0;
}
)";

QWidget *makeRoot()
{
    auto *root = new QWidget;
    root->setObjectName(QStringLiteral("TessivaneRoot"));
    root->setStyleSheet(QString::fromUtf8(tessivaneStyleSheet));
    return root;
}

void showThrough(QScrollArea *scroll)
{
    // QScrollArea fills its content with the palette's window colour, which would hide the
    // root's glow; and it must neither be a Tab stop nor take the focus from a field on a click.
    scroll->setFocusPolicy(Qt::NoFocus);
    scroll->viewport()->setAutoFillBackground(false);
    QWidget *content = scroll->widget();
    content->setAutoFillBackground(false);
    // Qt scrolls to a control only for a Tab pressed inside the area; one from the dock above, a
    // Shift+Tab from the dock below or a focus given back after a rebuild would land out of view.
    QObject::connect(qApp, &QApplication::focusChanged, scroll,
                     [scroll, content](QWidget *, QWidget *now) {
                         if (now && content->isAncestorOf(now))
                             scroll->ensureWidgetVisible(now);
                     });
}

QVBoxLayout *rootLayout(QWidget *root, int margin, int spacing)
{
    auto *layout = new QVBoxLayout(root);
    layout->setContentsMargins(margin, margin, margin, margin);
    layout->setSpacing(spacing);
    return layout;
}

QVBoxLayout *scrollingRootLayout(QWidget *root, int margin, int spacing)
{
    // The content scrolls over the root, so that the glow stays in place and fills the dock
    // however far it is scrolled.
    auto *frame = new QVBoxLayout(root);
    frame->setContentsMargins(0, 0, 0, 0);
    auto *scroll = new PanelScroll(root);
    scroll->setWidgetResizable(true);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    frame->addWidget(scroll);
    auto *content = new QWidget;
    QVBoxLayout *layout = rootLayout(content, margin, spacing);
    scroll->setWidget(content);
    showThrough(scroll);
    return layout;
}

QLabel *heading(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setObjectName(QStringLiteral("TessivaneHeading"));
    label->setTextFormat(Qt::PlainText);
    return label;
}

namespace {
QLabel *wrappedLabel(const QString &text, const char *objectName, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setObjectName(QLatin1String(objectName));
    label->setWordWrap(true);
    // Names and messages from the service show as they are, never as markup.
    label->setTextFormat(Qt::PlainText);
    return label;
}
} // namespace

QLabel *muted(const QString &text, QWidget *parent)
{
    return wrappedLabel(text, "TessivaneMuted", parent);
}

QString cutText(const QString &text, qsizetype longest, int lines)
{
    qsizetype end = qMin(text.size(), longest);
    // The break that ends the last line kept, if more lines follow it.
    const QStringView head = QStringView(text).left(end);
    for (qsizetype at = -1; lines > 0 && (at = head.indexOf(u'\n', at + 1)) >= 0; --lines)
        if (lines == 1)
            end = at;
    if (end == text.size())
        return text;
    // A character goes whole: a letter with its marks, a flag, an emoji joined of several.
    const QStringView around = QStringView(text).left(end + 1);
    QTextBoundaryFinder characters(QTextBoundaryFinder::Grapheme, around.data(), around.size());
    characters.setPosition(end);
    if (!characters.isAtBoundary())
        end = qMax<qsizetype>(0, characters.toPreviousBoundary());
    return text.left(end) + QChar(0x2026); // ellipsis
}

QJsonArray partOf(const QJsonArray &array, qsizetype most, bool newest)
{
    if (array.size() <= most)
        return array;
    QJsonArray part;
    for (qsizetype i = newest ? array.size() - most : 0; part.size() < most; ++i)
        part.append(array.at(i));
    return part;
}

QString shownText(const QString &text)
{
    // A label wraps only between words: a break may fall after this many characters of a longer
    // one, so that an address or a name without blanks stays inside the dock. A character is what
    // a reader sees as one: a letter with its marks, a flag, an emoji joined of several.
    constexpr int wordPiece = 24;
    const QString cut = cutText(text);
    QTextBoundaryFinder characters(QTextBoundaryFinder::Grapheme, cut);
    QString shown;
    shown.reserve(cut.size() + cut.size() / wordPiece + 1);
    int run = 0;
    for (qsizetype start = 0, end; start < cut.size(); start = end) {
        end = characters.toNextBoundary();
        const QStringView character = QStringView(cut).mid(start, end - start);
        run = character.front().isSpace() ? 0 : run + 1;
        if (run > wordPiece) {
            shown.append(QChar(0x200B)); // zero width space
            run = 1;
        }
        shown.append(character);
    }
    return shown;
}

QString oneLine(QString text)
{
    for (QChar &c : text) {
        switch (c.unicode()) {
        case u'\n':
        case u'\r':
        case u'\v':
        case u'\f':
        case 0x0085: // next line
        case 0x2028: // line separator
        case 0x2029: // paragraph separator
            c = QLatin1Char(' ');
            break;
        default:
            break;
        }
    }
    // Embeddings, overrides and isolates, with their ends.
    text.removeIf([](QChar c) {
        return (c.unicode() >= 0x202A && c.unicode() <= 0x202E) ||
               (c.unicode() >= 0x2066 && c.unicode() <= 0x2069);
    });
    return text;
}

void announce(QWidget *source, const QString &text, bool failure)
{
    if (!source || text.isEmpty())
        return;
    QAccessibleAnnouncementEvent event(source, text);
    event.setPoliteness(failure ? QAccessible::AnnouncementPoliteness::Assertive
                                : QAccessible::AnnouncementPoliteness::Polite);
    QAccessible::updateAccessibility(&event);
}

void setEnabledKeepingFocus(QWidget *control, bool enabled, QWidget *holder)
{
    if (!control)
        return;
    // The window's focus, not the application's: a box or a menu may hold the keyboard meanwhile,
    // and Qt moves the window's focus on all the same.
    const auto holds = [](QWidget *widget) {
        return widget && widget->window()->focusWidget() == widget;
    };
    constexpr char waiting[] = "tessivaneFocusWaits";
    if (!enabled && holder && holds(control)) {
        holder->setFocus(Qt::OtherFocusReason);
        control->setProperty(waiting, true);
    }
    control->setEnabled(enabled);
    // Back only if the streamer has not moved on meanwhile.
    if (enabled && control->property(waiting).toBool()) {
        control->setProperty(waiting, QVariant());
        if (holds(holder))
            control->setFocus(Qt::OtherFocusReason);
    }
}

QString platformName(const QString &providerKey)
{
    static const struct {
        QLatin1String key, name;
    } names[] = {
        {QLatin1String("twitch"), QLatin1String("Twitch")},
        {QLatin1String("youtube"), QLatin1String("YouTube")},
        {QLatin1String("kick"), QLatin1String("Kick")},
        {QLatin1String("facebook"), QLatin1String("Facebook")},
        {QLatin1String("instagram"), QLatin1String("Instagram")},
    };
    for (const auto &platform : names) {
        if (providerKey == platform.key)
            return platform.name;
    }
    return providerKey;
}

QFrame *TessivaneController::makePanel(QWidget *parent) const
{
    auto *panel = new QFrame(parent);
    panel->setObjectName(QStringLiteral("TessivanePanel"));
    return panel;
}

QLabel *TessivaneController::makeValueLabel(const QString &text, QWidget *parent) const
{
    return wrappedLabel(text, "TessivaneValue", parent);
}

bool TessivaneController::registerDock(const char *id, const char *title, QWidget *widget)
{
    if (!widget)
        return false;
    if (!obs_frontend_add_dock_by_id(id, title, widget)) {
        delete widget;
        return false;
    }
    if (auto *dock = qobject_cast<QDockWidget *>(widget->parent())) {
        dock->setAllowedAreas(Qt::AllDockWidgetAreas);
        dock->setFeatures(QDockWidget::DockWidgetClosable | QDockWidget::DockWidgetMovable |
                          QDockWidget::DockWidgetFloatable);
        dock->setFloating(false);
    }
    const QString dockId = QString::fromUtf8(id);
    docks_[dockId] = widget;
    // OBS deletes its docks at exit before it unloads the module, and timers and replies can
    // still arrive in between: from then on no widget of that dock may be touched.
    connect(widget, &QObject::destroyed, this, [this, dockId]() { clearWidgetPointers(dockId); });
    return true;
}

void TessivaneController::showDocks()
{
    const QList<QPointer<QWidget>> widgets = docks_.values();
    for (const QPointer<QWidget> &widget : widgets) {
        if (!widget)
            continue;
        QWidget *frame = widget->parentWidget() ? widget->parentWidget() : widget.data();
        frame->show();
        frame->raise();
    }
}

void TessivaneController::removeDocks()
{
    const QList<QString> ids = docks_.keys();
    for (const QString &id : ids)
        obs_frontend_remove_dock(id.toUtf8().constData());
    docks_.clear();
}

void TessivaneController::restoreDockLayout()
{
    // OBS restores its saved layout before a plug-in can add its docks, which then stand hidden
    // and floating; applying the same saved state again puts them where the streamer left them.
    // OBS 31 keeps it in the user configuration, through a function that OBS 30 lacks.
#if LIBOBS_API_MAJOR_VER >= 31
    // A build against OBS 31 or later loads only into such a host.
    config_t *config = obs_frontend_get_user_config();
#else
    // Looked up at run time, so that a build against OBS 30 serves the later ones too.
    using ConfigGetter = config_t *(*)();
    const auto userConfig =
        reinterpret_cast<ConfigGetter>(dlsym(RTLD_DEFAULT, "obs_frontend_get_user_config"));
    config_t *config = userConfig ? userConfig() : obs_frontend_get_global_config();
#endif
    const char *state = config ? config_get_string(config, "BasicWindow", "DockState") : nullptr;
    if (!state || !*state)
        return;
    if (auto *window = static_cast<QMainWindow *>(obs_frontend_get_main_window()))
        window->restoreState(QByteArray::fromBase64(state));
}
