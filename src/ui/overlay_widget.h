#pragma once

#include <QWidget>

namespace velocast {

// A widget laid over the whole of its parent widget; it follows the parent's size.
// Main thread only; owned by the parent like any child widget.
class OverlayWidget : public QWidget {
    Q_OBJECT
public:
    explicit OverlayWidget(QWidget *parent);

    // Covers `parent` (reparenting the overlay when it sits elsewhere), shows and raises it.
    void showOver(QWidget *parent);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    bool event(QEvent *event) override;

private:
    void followParent();
};

} // namespace velocast
