#include "Command.h"

#include "SignalWatcher.h"

#include <QCoreApplication>

#include <cstdio>

namespace QuorlixTool {

namespace {

// Qt prints the description as it is; paragraphs are wrapped here to the width of its options.
QString wrapped(const QString& text, qsizetype width = 79)
{
    QStringList lines;
    for (const QString& paragraph : text.split(u'\n')) {
        QString line;
        for (const QString& word : paragraph.split(u' ', Qt::SkipEmptyParts)) {
            if (!line.isEmpty() && line.size() + 1 + word.size() > width) {
                lines << line;
                line.clear();
            }
            line += (line.isEmpty() ? QString() : QStringLiteral(" ")) + word;
        }
        lines << line;
    }
    return lines.join(u'\n');
}

} // namespace

Command::~Command() = default;

void Command::setUp(QCommandLineParser& parser) const
{
    parser.setApplicationDescription(wrapped(description()));
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    parser.addHelpOption();
    parser.addVersionOption();
    describe(parser);
    CommonOptions::addTo(parser);
}

QString Command::helpText()
{
    QCommandLineParser parser;
    setUp(parser);
    // Qt names the program by its path; the usage line names the subcommand as typed.
    QString text = parser.helpText();
    const QString program = QCoreApplication::arguments().value(0);
    text.replace(QStringLiteral("Usage: %1").arg(program),
                 QStringLiteral("Usage: quorlix %1").arg(name()));
    return text;
}

int Command::run(const QStringList& arguments)
{
    QCommandLineParser parser;
    setUp(parser);
    if (!parser.parse(arguments))
        return complain(parser.errorText() +
                            QStringLiteral("\nTry 'quorlix %1 --help'.").arg(name()),
                        badUsage);
    if (parser.isSet(QStringLiteral("help"))) {
        std::fputs(qPrintable(helpText()), stdout);
        return 0;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        std::printf("quorlix %s\n", qPrintable(QCoreApplication::applicationVersion()));
        return 0;
    }
    QString problem;
    const std::optional<CommonOptions> common = CommonOptions::read(parser, &problem);
    if (!common)
        return complain(problem, badUsage);
    if (const std::optional<int> code = start(parser, *common))
        return *code;

    SignalWatcher watcher;
    QObject::connect(&watcher, &SignalWatcher::interrupted, [this] { interrupt(); });
    return QCoreApplication::exec();
}

void Command::finish(int code)
{
    std::fflush(stdout);
    QCoreApplication::exit(code);
}

int Command::complain(const QString& message, int code) const
{
    std::fflush(stdout);
    std::fprintf(stderr, "quorlix %s: %s\n", qPrintable(name()), qPrintable(message));
    return code;
}

} // namespace QuorlixTool
