#include "quorlix/ui/TableView.h"

#include "quorlix/ui/TableViewDataSource.h"

#include <QAbstractTableModel>
#include <QHeaderView>

namespace Quorlix {

class TableView::Model : public QAbstractTableModel
{
public:
    using QAbstractTableModel::QAbstractTableModel;

    TableViewDataSource* source = nullptr;

    void reset()
    {
        beginResetModel();
        endResetModel();
    }

    int rowCount(const QModelIndex& parent) const override
    {
        if (parent.isValid() || source == nullptr)
            return 0;
        return source->numberOfRowsInSection(0);
    }

    int columnCount(const QModelIndex& parent) const override { return parent.isValid() ? 0 : 1; }

    QVariant data(const QModelIndex& index, int role) const override
    {
        // Only the text is the source's business; every other role keeps Qt's default look.
        if (role != Qt::DisplayRole || source == nullptr || !index.isValid())
            return {};
        return source->cellForRowAtIndexPath(index);
    }

    Qt::ItemFlags flags(const QModelIndex& index) const override
    {
        return index.isValid() ? Qt::ItemIsEnabled | Qt::ItemIsSelectable : Qt::NoItemFlags;
    }
};

TableView::TableView(QWidget* parent)
    : QTableView(parent)
    , m_model(new Model(this))
{
    setModel(m_model);
    horizontalHeader()->hide();
    horizontalHeader()->setStretchLastSection(true);
    verticalHeader()->hide();
    verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    verticalHeader()->setDefaultSectionSize(44);
    setShowGrid(false);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setWordWrap(false);
    connect(this, &QAbstractItemView::clicked, this, [this](const QModelIndex& index) {
        if (m_model->source != nullptr && index.isValid())
            m_model->source->didSelectRowAtIndexPath(index.row());
    });
}

TableView::~TableView() = default;

void TableView::setDataSource(TableViewDataSource* source)
{
    m_model->source = source;
    m_model->reset();
}

TableViewDataSource* TableView::dataSource() const
{
    return m_model->source;
}

void TableView::reloadData()
{
    m_model->reset();
}

} // namespace Quorlix
