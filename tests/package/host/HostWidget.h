#pragma once

#include <QWidget>

// The host's own widget class, on the Qt targets the host found itself.
class HostWidget : public QWidget
{
    Q_OBJECT
public:
    using QWidget::QWidget;
    static const char* name();
};
