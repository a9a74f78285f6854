#include "quorlix/service/DirectoryAnswer.h"

#include "quorlix/LoggingCategories.h"
#include "quorlix/platform/Fatal.h"
#include "quorlix/platform/Log.h"
#include "quorlix/service/DirectoryClient.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

namespace Quorlix::DirectoryAnswer {
namespace {

using Json = nlohmann::json;

// Real answers are records in a list, three levels at most. The bound keeps the recursive
// conversions below (and nlohmann's own dump) far from the end of the stack.
constexpr int maxDepth = 64;

// The deepest nesting of arrays and objects in text that looks like JSON; strings are skipped, so
// brackets inside them do not count. Malformed text is the parser's business.
int nestingDepth(const QByteArray& data)
{
    int depth = 0;
    int deepest = 0;
    bool inString = false;
    for (qsizetype i = 0; i < data.size(); ++i) {
        const char c = data[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

// Stops that the shape of an answer causes are preceded by a diagnostic naming that cause.
void shapeProblem(const QString& cause)
{
    qCWarning(lcDirectory).noquote() << QStringLiteral("a directory answer: ") + cause;
}

QVariant toVariant(const Json& json)
{
    switch (json.type()) {
    case Json::value_t::object: {
        QVariantMap record;
        for (const auto& [name, value] : json.items())
            record.insert(QString::fromStdString(name), toVariant(value));
        return record;
    }
    case Json::value_t::array: {
        QVariantList list;
        list.reserve(static_cast<qsizetype>(json.size()));
        for (const Json& element : json)
            list.append(toVariant(element));
        return list;
    }
    case Json::value_t::string:
        return QString::fromStdString(json.get_ref<const std::string&>());
    case Json::value_t::number_integer:
        return QVariant::fromValue(json.get<qlonglong>());
    case Json::value_t::number_unsigned:
        return QVariant::fromValue(json.get<qulonglong>());
    case Json::value_t::number_float:
        return json.get<double>();
    case Json::value_t::boolean:
        return json.get<bool>();
    default:
        return QVariant::fromValue(nullptr);
    }
}

Json toJson(const QVariant& value)
{
    switch (value.metaType().id()) {
    case QMetaType::QVariantMap: {
        Json record = Json::object();
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            record[it.key().toStdString()] = toJson(it.value());
        return record;
    }
    case QMetaType::QVariantList: {
        Json list = Json::array();
        for (const QVariant& element : value.toList())
            list.push_back(toJson(element));
        return list;
    }
    case QMetaType::QString:
        return value.toString().toStdString();
    case QMetaType::LongLong:
        return value.toLongLong();
    case QMetaType::ULongLong:
        return value.toULongLong();
    case QMetaType::Double:
        return value.toDouble();
    case QMetaType::Bool:
        return value.toBool();
    default:
        return nullptr;
    }
}

bool isNumber(const QVariant& value)
{
    const int type = value.metaType().id();
    return type == QMetaType::LongLong || type == QMetaType::ULongLong || type == QMetaType::Double;
}

const char* typeName(const QVariant& value)
{
    switch (value.metaType().id()) {
    case QMetaType::QVariantMap:
        return "Dictionary";
    case QMetaType::QVariantList:
        return "Array";
    case QMetaType::QString:
        return "String";
    case QMetaType::Bool:
        return "Bool";
    default:
        return isNumber(value) ? "Number" : "Null";
    }
}

// The integer value of a number: a fraction is dropped and the result saturates, so that this
// step cannot fail.
qint64 integerValue(const QVariant& number)
{
    switch (number.metaType().id()) {
    case QMetaType::LongLong:
        return number.toLongLong();
    case QMetaType::ULongLong:
        return static_cast<qint64>(
            std::min<qulonglong>(number.toULongLong(), std::numeric_limits<qint64>::max()));
    default: {
        const double value = std::trunc(number.toDouble());
        if (value >= 9223372036854775808.0)
            return std::numeric_limits<qint64>::max();
        if (value <= -9223372036854775808.0)
            return std::numeric_limits<qint64>::min();
        return static_cast<qint64>(value);
    }
    }
}

QVariant memberOfElement(const QVariant& element, const QString& name)
{
    return member(element, name).value_or(QVariant::fromValue(nullptr));
}

} // namespace

QVariant parse(const QByteArray& data)
{
    if (nestingDepth(data) > maxDepth) {
        DirectoryClient::diagnose(data, QStringLiteral("not JSON as accepted here: nested deeper "
                                                       "than %1 levels")
                                            .arg(maxDepth));
        Fatal::answerNotJson();
    }
    const Json json = Json::parse(data.cbegin(), data.cend(), nullptr, false);
    if (json.is_discarded()) {
        DirectoryClient::diagnose(
            data, QStringLiteral("not JSON: \"%1\"").arg(QString::fromUtf8(data.left(80))));
        Fatal::answerNotJson();
    }
    return toVariant(json);
}

std::optional<QVariant> member(const QVariant& value, const QString& name)
{
    switch (value.metaType().id()) {
    case QMetaType::QVariantMap: {
        const QVariantMap record = value.toMap();
        const auto found = record.constFind(name);
        if (found == record.cend())
            return std::nullopt;
        return *found;
    }
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        QVariantList members;
        members.reserve(list.size());
        for (const QVariant& element : list)
            members.append(memberOfElement(element, name));
        return members;
    }
    default:
        shapeProblem(QStringLiteral("looked up \"%1\" in a %2").arg(name, typeName(value)));
        Fatal::unknownKey(typeName(value), name.toStdString());
    }
}

QString textMember(const QVariant& value, const QString& name)
{
    const std::optional<QVariant> found = member(value, name);
    if (!found)
        return {};
    if (found->metaType().id() == QMetaType::QVariantList) {
        // Deliberately unchecked, unlike deviceKey: an empty array or a first element that is not
        // a text stops the process.
        const QVariantList list = found->toList();
        if (list.isEmpty()) {
            shapeProblem(QStringLiteral("\"%1\" is an empty list").arg(name));
            Fatal::indexOutOfRange();
        }
        if (list.first().metaType().id() != QMetaType::QString) {
            shapeProblem(QStringLiteral("the first \"%1\" is a %2, not a text")
                             .arg(name, typeName(list.first())));
            Fatal::failedCast(typeName(list.first()), "String");
        }
        return list.first().toString();
    }
    if (found->metaType().id() == QMetaType::QString)
        return found->toString();
    return {};
}

QString deviceKey(const QVariant& answer)
{
    const std::optional<QVariant> found = member(answer, QStringLiteral("Key"));
    if (!found)
        return {};
    if (found->metaType().id() == QMetaType::QVariantList) {
        Log::line(describe(*found));
        const QVariantList list = found->toList();
        if (list.isEmpty())
            return {};
        if (!isNumber(list.first())) {
            shapeProblem(QStringLiteral("the first \"Key\" is a %1, not a number")
                             .arg(typeName(list.first())));
            Fatal::failedCast(typeName(list.first()), "Int");
        }
        return QString::number(integerValue(list.first()));
    }
    if (isNumber(*found)) {
        Log::line(describe(*found));
        return QString::number(integerValue(*found));
    }
    return {};
}

QString describe(const QVariant& value)
{
    return QString::fromStdString(toJson(value).dump());
}

bool isNull(const QVariant& value)
{
    return value.metaType().id() == QMetaType::Nullptr;
}

} // namespace Quorlix::DirectoryAnswer
