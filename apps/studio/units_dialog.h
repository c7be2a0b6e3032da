// Units Setup: the scene's unit, which world-unit fields show and take.
// The unit only labels the numbers; nothing in the scene is rescaled.
#pragma once

#include "host/units.h"

#include <QDialog>

class QComboBox;

namespace mosaiq::studio {

class UnitsSetupDialog : public QDialog {
    Q_OBJECT
public:
    explicit UnitsSetupDialog(mq::SceneUnit unit, QWidget* parent = nullptr);
    mq::SceneUnit unit() const;

private:
    QComboBox* units_;
};

}  // namespace mosaiq::studio
