// The scene outliner: the node tree, with a check box per node for
// renderable. Select by clicking, rename by double-clicking the name,
// reparent by dragging a node onto another (or onto empty space for the
// root). Edits are requested through signals; the main window applies them
// as undo steps and rebuilds the tree.
#pragma once

#include "host/node.h"

#include <QTreeWidget>

namespace mosaiq::studio {

class SceneOutliner : public QTreeWidget {
    Q_OBJECT
public:
    explicit SceneOutliner(QWidget* parent = nullptr);

    // Show the scene's nodes, keeping the selection and the open branches.
    void rebuild(mq::Scene& scene);
    // Select a node (null clears the selection); emits nodeSelected.
    void selectNode(mq::Node* node);
    mq::Node* selectedNode() const;
    QTreeWidgetItem* itemFor(const mq::Node* node) const;
    static mq::Node* nodeOf(const QTreeWidgetItem* item);

signals:
    void nodeSelected(mq::Node* node);
    void renameRequested(mq::Node* node, const QString& name);
    void renderableRequested(mq::Node* node, bool on);
    void reparentRequested(mq::Node* node, mq::Node* parent);

protected:
    void dropEvent(QDropEvent* event) override;

private:
    void onItemChanged(QTreeWidgetItem* item, int column);
    mq::Node* root_ = nullptr;
    bool rebuilding_ = false;
};

}  // namespace mosaiq::studio
