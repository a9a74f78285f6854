#include "quorlix/location/sources/Scenario.h"

#include "quorlix/location/sources/SourceFile.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>

namespace Quorlix {
namespace {

using Json = nlohmann::json;

// Far deeper than any scenario; deeper documents are refused before they are parsed, so that
// nothing recursive (copies, dumps) ever walks them.
constexpr int maxDepth = 64;
constexpr std::size_t maxBeacons = 10'000;
constexpr qint64 maxScenarioBytes = 64 * 1024 * 1024;

// The deepest nesting of arrays and objects in text that looks like JSON; brackets in strings do
// not count. Malformed text is the parser's business.
int nestingDepth(const QByteArray& text)
{
    int depth = 0;
    int deepest = 0;
    bool inString = false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char c = text[i];
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

// Parse failures carry the path of the offending member ("beacons[1].path[0]").
struct ScenarioError
{
    std::string where;
    std::string what;
};

std::string kindOf(const Json& value)
{
    return value.type_name();
}

std::string quotedText(const std::string& text)
{
    return SourceFile::quoted(QString::fromStdString(text)).toStdString();
}

// A value as it appears in a message: scalars as written, cut short; lists and objects by kind.
std::string shown(const Json& value)
{
    if (value.is_structured())
        return kindOf(value);
    return quotedText(value.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string text(double x)
{
    return QString::number(x).toStdString();
}

double number(const Json& value, const std::string& where, double low, double high)
{
    if (!value.is_number())
        throw ScenarioError{where, "expected a number, got " + kindOf(value)};
    const double x = value.get<double>();
    if (!std::isfinite(x) || x < low || x > high)
        throw ScenarioError{where, "value " + shown(value) + " is outside " + text(low) + " to " +
                                       text(high)};
    return x;
}

std::int64_t integer(const Json& value, const std::string& where, std::int64_t low,
                     std::int64_t high)
{
    if (!value.is_number_integer())
        throw ScenarioError{where, "expected an integer, got " + shown(value)};
    const auto x = value.get<std::int64_t>();
    if (value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(high))
        throw ScenarioError{where, "value " + shown(value) + " is outside " + std::to_string(low) +
                                       " to " + std::to_string(high)};
    if (x < low || x > high)
        throw ScenarioError{where, "value " + shown(value) + " is outside " + std::to_string(low) +
                                       " to " + std::to_string(high)};
    return x;
}

void onlyMembers(const Json& object, const std::string& where,
                 std::initializer_list<const char*> known)
{
    if (!object.is_object())
        throw ScenarioError{where.empty() ? "scenario" : where,
                            "expected an object, got " + kindOf(object)};
    for (const auto& [key, value] : object.items()) {
        bool ok = false;
        for (const char* name : known)
            ok = ok || key == name;
        if (!ok)
            throw ScenarioError{where.empty() ? quotedText(key) : where + "." + quotedText(key),
                                "unknown member"};
    }
}

const Json& required(const Json& object, const char* member, const std::string& where)
{
    const auto found = object.find(member);
    if (found == object.end())
        throw ScenarioError{where + "." + member, "missing"};
    return *found;
}

ScenarioBeacon parseBeacon(const Json& json, const std::string& where, std::size_t index)
{
    onlyMembers(json, where,
                {"uuid", "major", "minor", "measuredPower", "interval", "loss", "noise", "address",
                 "path"});
    ScenarioBeacon beacon;
    const Json& uuid = required(json, "uuid", where);
    if (uuid.is_string())
        beacon.uuid = QUuid::fromString(QString::fromStdString(uuid.get<std::string>()));
    if (beacon.uuid.isNull())
        throw ScenarioError{where + ".uuid", "expected a UUID text, got " + shown(uuid)};
    beacon.major =
        static_cast<quint16>(integer(required(json, "major", where), where + ".major", 0, 65535));
    beacon.minor =
        static_cast<quint16>(integer(required(json, "minor", where), where + ".minor", 0, 65535));
    if (json.contains("measuredPower"))
        beacon.measuredPower =
            static_cast<qint8>(integer(json["measuredPower"], where + ".measuredPower", -128, 127));
    if (json.contains("interval"))
        beacon.intervalS = number(json["interval"], where + ".interval", 0.02, 10.24);
    if (json.contains("loss"))
        beacon.loss = number(json["loss"], where + ".loss", 0, 1);
    if (json.contains("noise"))
        beacon.noiseDb = number(json["noise"], where + ".noise", 0, 40);
    if (json.contains("address")) {
        if (!json["address"].is_string() ||
            json["address"].get_ref<const std::string&>().size() > 64)
            throw ScenarioError{where + ".address",
                                "expected a text of at most 64 characters, got " +
                                    shown(json["address"])};
        beacon.address = QByteArray::fromStdString(json["address"].get<std::string>());
    } else {
        beacon.address = QStringLiteral("5A:00:00:00:%1:%2")
                             .arg((index >> 8) & 0xff, 2, 16, QLatin1Char('0'))
                             .arg(index & 0xff, 2, 16, QLatin1Char('0'))
                             .toUpper()
                             .toLatin1();
    }
    const Json& path = required(json, "path", where);
    if (!path.is_array() || path.empty())
        throw ScenarioError{where + ".path", "expected a non-empty list of [time, distance]"};
    for (std::size_t i = 0; i < path.size(); ++i) {
        const std::string at = where + ".path[" + std::to_string(i) + "]";
        const Json& point = path[i];
        if (!point.is_array() || point.size() != 2)
            throw ScenarioError{at, "expected [time, distance], got " + shown(point)};
        ScenarioBeacon::PathPoint p;
        p.timeS = number(point[0], at, 0, 1e9);
        if (!point[1].is_null())
            p.distanceM = number(point[1], at, 0.01, 1e6);
        if (!beacon.path.empty() && p.timeS < beacon.path.back().timeS)
            throw ScenarioError{at,
                                "time " + shown(point[0]) + " is earlier than the point before"};
        beacon.path.push_back(p);
    }
    return beacon;
}

Scenario parseScenario(const Json& json)
{
    onlyMembers(json, {}, {"seed", "pathLossExponent", "sensitivity", "beacons"});
    Scenario scenario;
    if (json.contains("seed"))
        scenario.seed = static_cast<quint64>(
            integer(json["seed"], "seed", 0, std::numeric_limits<std::int64_t>::max()));
    if (json.contains("pathLossExponent"))
        scenario.pathLossExponent = number(json["pathLossExponent"], "pathLossExponent", 1, 6);
    if (json.contains("sensitivity"))
        scenario.sensitivityDbm = number(json["sensitivity"], "sensitivity", -130, 0);
    const auto beacons = json.find("beacons");
    if (beacons == json.end())
        throw ScenarioError{"beacons", "missing"};
    if (!beacons->is_array())
        throw ScenarioError{"beacons", "expected a list, got " + kindOf(*beacons)};
    if (beacons->size() > maxBeacons)
        throw ScenarioError{"beacons", "more than " + std::to_string(maxBeacons) + " beacons"};
    for (std::size_t i = 0; i < beacons->size(); ++i)
        scenario.beacons.push_back(
            parseBeacon((*beacons)[i], "beacons[" + std::to_string(i) + "]", i));
    return scenario;
}

} // namespace

std::optional<Scenario> Scenario::parse(const QByteArray& json, const QString& name, QString* error)
{
    // nlohmann's parser callback would do this too, but makes closing objects cost the size of
    // their parent: quadratic on a long list of beacons.
    if (nestingDepth(json) > maxDepth) {
        *error =
            QStringLiteral("scenario %1: nested deeper than %2 levels").arg(name).arg(maxDepth);
        return std::nullopt;
    }
    Json document;
    try {
        document = Json::parse(json.begin(), json.end());
    } catch (const Json::parse_error& e) {
        const qsizetype upTo = std::min<qsizetype>(static_cast<qsizetype>(e.byte), json.size());
        const QByteArray before = json.left(std::max<qsizetype>(upTo - 1, 0));
        const qsizetype line = before.count('\n') + 1;
        const qsizetype column = before.size() - before.lastIndexOf('\n');
        *error = QStringLiteral("scenario %1: line %2, column %3: not valid JSON")
                     .arg(name)
                     .arg(line)
                     .arg(column);
        return std::nullopt;
    } catch (const Json::exception& e) {
        // Numbers out of double's range, above all ("1e400").
        std::string what = e.what();
        if (const std::size_t end = what.find("] "); what.starts_with('[') && end != what.npos)
            what.erase(0, end + 2);
        *error = QStringLiteral("scenario %1: not valid JSON: %2")
                     .arg(name, QString::fromStdString(what.substr(0, 200)));
        return std::nullopt;
    }
    try {
        return parseScenario(document);
    } catch (const ScenarioError& e) {
        *error = QStringLiteral("scenario %1: %2: %3")
                     .arg(name, QString::fromStdString(e.where), QString::fromStdString(e.what));
        return std::nullopt;
    }
}

std::optional<Scenario> Scenario::load(const QString& path, QString* error)
{
    QByteArray bytes;
    QString problem;
    if (!SourceFile::read(path, maxScenarioBytes, &bytes, &problem)) {
        *error = QStringLiteral("scenario %1: cannot be read: %2").arg(path, problem);
        return std::nullopt;
    }
    return parse(bytes, path, error);
}

std::optional<double> ScenarioBeacon::distanceAt(double timeS) const
{
    if (path.empty())
        return std::nullopt;
    // The last point at or before timeS (the first point holds before it starts); a binary search,
    // since a path may have many points and this runs for every advert.
    const auto after =
        std::upper_bound(path.begin() + 1, path.end(), timeS,
                         [](double t, const PathPoint& point) { return t < point.timeS; });
    const std::size_t i = std::size_t(after - path.begin()) - 1;
    const PathPoint& from = path[i];
    if (!from.distanceM || i + 1 == path.size() || timeS <= from.timeS)
        return from.distanceM;
    const PathPoint& to = path[i + 1];
    if (!to.distanceM)
        return from.distanceM;
    const double f = (timeS - from.timeS) / (to.timeS - from.timeS);
    return *from.distanceM + f * (*to.distanceM - *from.distanceM);
}

} // namespace Quorlix
