#include "outliner.h"

#include <QDropEvent>
#include <QHeaderView>
#include <QSet>

#include <functional>

namespace mosaiq::studio {

namespace {
// Items carry their node's handle, never a pointer: a stale item then finds no node.
constexpr int kHandleRole = Qt::UserRole + 1;
}  // namespace

SceneOutliner::SceneOutliner(QWidget* parent) : QTreeWidget(parent) {
    setColumnCount(2);
    setHeaderLabels({tr("Scene"), tr("Type")});
    // The name takes the room; the type column is as wide as its longest entry.
    header()->setStretchLastSection(false);
    header()->setSectionResizeMode(0, QHeaderView::Stretch);
    header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setDragDropMode(QAbstractItemView::InternalMove);
    // Only the name is edited, wherever the row is double-clicked.
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    connect(this, &QTreeWidget::itemDoubleClicked, this,
            [this](QTreeWidgetItem* item) { editItem(item, 0); });
    setToolTip(tr("Check: renderable. Double-click: rename. Drag onto a node: link to it."));
    connect(this, &QTreeWidget::itemChanged, this, &SceneOutliner::onItemChanged);
    connect(this, &QTreeWidget::itemSelectionChanged, this, [this] {
        if (!rebuilding_) emit nodeSelected(selectedNode());
    });
}

mq::Node* SceneOutliner::nodeOf(const QTreeWidgetItem* item) {
    return item ? mq::Node::fromHandle(item->data(0, kHandleRole).toULongLong()) : nullptr;
}

void SceneOutliner::rebuild(mq::Scene& scene) {
    rebuilding_ = true;
    const mq::Node* selected = selectedNode();
    QSet<qulonglong> collapsed;
    for (QTreeWidgetItemIterator it(this); *it; ++it)
        if (!(*it)->isExpanded() && (*it)->childCount() > 0)
            collapsed.insert((*it)->data(0, kHandleRole).toULongLong());
    clear();
    root_ = scene.root();
    std::function<void(mq::Node*, QTreeWidgetItem*)> add = [&](mq::Node* node,
                                                               QTreeWidgetItem* parent) {
        for (int i = 0; i < node->NumberOfChildren(); ++i) {
            mq::Node* child = node->GetChildNode(i);
            auto* item = parent ? new QTreeWidgetItem(parent) : new QTreeWidgetItem(this);
            item->setText(0, QString::fromStdString(child->GetName()));
            item->setData(0, kHandleRole, qulonglong(child->GetHandle()));
            item->setFlags(item->flags() | Qt::ItemIsEditable | Qt::ItemIsUserCheckable |
                           Qt::ItemIsDragEnabled | Qt::ItemIsDropEnabled);
            item->setCheckState(0, child->Renderable() ? Qt::Checked : Qt::Unchecked);
            if (mq::Object* obj = child->GetObjectRef())
                item->setText(1, QString::fromStdString(obj->GetClassName()));
            item->setForeground(1, palette().color(QPalette::Disabled, QPalette::Text));
            add(child, item);
            item->setExpanded(!collapsed.contains(qulonglong(child->GetHandle())));
        }
    };
    add(root_, nullptr);
    if (QTreeWidgetItem* item = itemFor(selected)) item->setSelected(true);
    rebuilding_ = false;
    // The selected node may be gone (undo of its creation).
    if (selected && !selectedNode()) emit nodeSelected(nullptr);
}

QTreeWidgetItem* SceneOutliner::itemFor(const mq::Node* node) const {
    if (!node) return nullptr;
    for (QTreeWidgetItemIterator it(const_cast<SceneOutliner*>(this)); *it; ++it)
        if ((*it)->data(0, kHandleRole).toULongLong() == node->GetHandle()) return *it;
    return nullptr;
}

void SceneOutliner::selectNode(mq::Node* node) {
    QTreeWidgetItem* item = itemFor(node);
    if (!item) {
        clearSelection();
        return;
    }
    setCurrentItem(item);
    item->setSelected(true);
    scrollToItem(item);
}

mq::Node* SceneOutliner::selectedNode() const {
    const auto items = selectedItems();
    return items.isEmpty() ? nullptr : nodeOf(items.front());
}

void SceneOutliner::onItemChanged(QTreeWidgetItem* item, int column) {
    if (rebuilding_ || column != 0) return;
    mq::Node* node = nodeOf(item);
    if (!node) return;
    const QString name = item->text(0);
    const bool on = item->checkState(0) == Qt::Checked;
    if (name != QString::fromStdString(node->GetName())) emit renameRequested(node, name);
    if (on != node->Renderable()) emit renderableRequested(node, on);
}

void SceneOutliner::dropEvent(QDropEvent* event) {
    // The scene is the model: the tree is rebuilt from it, Qt moves nothing.
    event->setDropAction(Qt::IgnoreAction);
    event->accept();
    mq::Node* node = selectedNode();
    if (!node) return;
    QTreeWidgetItem* target = itemAt(event->position().toPoint());
    mq::Node* parent = root_;
    if (target) {
        mq::Node* onto = nodeOf(target);
        if (dropIndicatorPosition() == QAbstractItemView::OnItem)
            parent = onto;
        else if (onto)
            parent = onto->GetParentNode();
    }
    if (parent && parent != node->GetParentNode()) emit reparentRequested(node, parent);
}

}  // namespace mosaiq::studio
