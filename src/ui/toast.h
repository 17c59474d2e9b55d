#pragma once

#include "ui/overlay_widget.h"

#include <QString>
#include <QTimer>

#include <chrono>

namespace velocast {

// The text-only heads-up overlay: one rounded dark bubble with a line of text in the
// middle of its parent, letting clicks through. It hides itself after a delay and, once
// hidden, removes itself (deleteLater). Main thread only.
class Toast : public OverlayWidget {
    Q_OBJECT
public:
    // Shows `text` over `over` for `delay`, then removes it. The parent owns the toast;
    // the returned pointer is valid until the toast hides (keep it in a QPointer).
    static Toast *showText(QWidget *over, const QString &text, std::chrono::milliseconds delay);

    explicit Toast(QWidget *parent, const QString &text);

    QString text() const { return text_; }
    // Hides the toast `delay` from now (restarts the count when called again).
    void hideAfterDelay(std::chrono::milliseconds delay);
    // Whether hiding removes the toast from its parent (on by default).
    void setRemoveFromSuperViewOnHide(bool remove) { removeFromSuperViewOnHide_ = remove; }

protected:
    void paintEvent(QPaintEvent *event) override;
    void hideEvent(QHideEvent *event) override;
    void showEvent(QShowEvent *event) override;

private:
    QString text_;
    QTimer hideTimer_;
    bool removeFromSuperViewOnHide_ = true;
};

} // namespace velocast
