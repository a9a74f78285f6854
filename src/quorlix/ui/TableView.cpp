#include "quorlix/ui/TableView.h"

#include "quorlix/ui/TableViewDataSource.h"

#include <QAbstractTableModel>
#include <QHeaderView>
#include <QKeyEvent>

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
    // Tab leaves the list for the screen's button, as in any form; the arrows move in it.
    setTabKeyNavigation(false);
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
    // A reset forgets the current row; a keyboard user who had moved to a row keeps it while new
    // rows come in, and a list that has the focus highlights its first row as soon as there is one.
    const int row = currentIndex().row();
    m_model->reset();
    const int rows = m_model->rowCount({});
    if (row >= 0 && row < rows)
        setCurrentIndex(m_model->index(row, 0));
    else if (hasFocus() && rows > 0)
        setCurrentIndex(m_model->index(0, 0));
}

void TableView::keyPressEvent(QKeyEvent* event)
{
    switch (event->key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter:
    case Qt::Key_Space:
        if (event->modifiers() & ~Qt::KeypadModifier)
            break;
        if (m_model->source != nullptr && currentIndex().isValid())
            m_model->source->didSelectRowAtIndexPath(currentIndex().row());
        return;
    default:
        break;
    }
    QTableView::keyPressEvent(event);
}

void TableView::currentChanged(const QModelIndex& current, const QModelIndex& previous)
{
    QTableView::currentChanged(current, previous);
    // Keyboard focus landing on the list makes its first row current without selecting it; the
    // row that Return would pick must show as picked.
    if (current.isValid() && !selectionModel()->isRowSelected(current.row(), {}))
        selectionModel()->select(current,
                                 QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
}

} // namespace Quorlix
