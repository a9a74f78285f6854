#include "quorlix/platform/Log.h"

#include <cstdio>

namespace Quorlix::Log {

void line(const QString& text)
{
    QByteArray bytes = text.toUtf8();
    bytes.append('\n');
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

} // namespace Quorlix::Log
