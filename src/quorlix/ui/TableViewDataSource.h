#pragma once

#include "quorlix/Export.h"

#include <QModelIndex>
#include <QString>

namespace Quorlix {

/// What a TableView asks of its owner: the rows of its one section, their texts, and what to do
/// with a row the user picked.
class QUORLIX_EXPORT TableViewDataSource
{
public:
    virtual ~TableViewDataSource() = default;

    virtual int numberOfRowsInSection(int section) = 0;
    /// The text of the cell at indexPath.
    virtual QString cellForRowAtIndexPath(const QModelIndex& indexPath) = 0;
    virtual void didSelectRowAtIndexPath(int row) = 0;
};

} // namespace Quorlix
