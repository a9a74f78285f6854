#include "HostWidget.h"

const char* HostWidget::name()
{
    return staticMetaObject.className();
}
