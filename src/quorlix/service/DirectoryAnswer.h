#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <optional>

/// Reading the directory service's JSON answers. Parsed values are QVariant graphs: QVariantMap for
/// records, QVariantList for arrays, QString, qlonglong / qulonglong / double for numbers, bool,
/// and std::nullptr_t for null.
namespace Quorlix::DirectoryAnswer {

/// Parses any JSON document, top-level fragments included. Stops the process when data is not JSON.
QVariant parse(const QByteArray& data);

/// Member lookup: a record yields its member (nothing when it has none); an array yields an array
/// of the same length holding each element's member, null where an element lacks it. Any other
/// value has no members, and looking into it stops the process.
std::optional<QVariant> member(const QVariant& value, const QString& name);

/// The text member name of value. When the lookup yields an array, its first element must exist
/// and be a text, otherwise the process stops; a missing member or one that is not a text gives "".
QString textMember(const QVariant& value, const QString& name);

/// The device key text of an answer: the integer value of its "Key" number, or of the first
/// element when "Key" yields an array; "" for an empty array and for anything that is not a number
/// (a key sent as text included). Prints the array or number that it found. Stops the process when
/// the first element of an array is not a number.
QString deviceKey(const QVariant& answer);

/// A compact JSON rendering of a parsed value, for log lines.
QString describe(const QVariant& value);

/// Whether value is JSON null.
bool isNull(const QVariant& value);

} // namespace Quorlix::DirectoryAnswer
