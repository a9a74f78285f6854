#pragma once

#include "quorlix/Export.h"

#include <QTableView>

namespace Quorlix {

class TableViewDataSource;

/// A one-column list whose rows come from a TableViewDataSource, asked afresh at every
/// reloadData(); a click on a row, or Return, Enter or Space on the highlighted one, reports it to
/// the same source. The highlight is the current row, and it stays on its row across reloads.
class QUORLIX_EXPORT TableView : public QTableView
{
    Q_OBJECT

public:
    explicit TableView(QWidget* parent = nullptr);
    ~TableView() override;

    /// Non-owning; the source must outlive the table or be replaced first.
    void setDataSource(TableViewDataSource* source);
    TableViewDataSource* dataSource() const;

    /// Drops every row shown and asks the source again.
    void reloadData();

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void currentChanged(const QModelIndex& current, const QModelIndex& previous) override;

private:
    class Model;
    Model* m_model;
};

} // namespace Quorlix
