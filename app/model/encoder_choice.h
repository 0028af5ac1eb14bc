/*
** encoder_choice.h -- which weights file a tab's index is built and searched with.
**
** The model asks; the training manager (app/training) answers. The application object owns the
** one that answers and hands it to the tabs, so the model never reaches for the training layer.
*/
#ifndef TRN_APP_ENCODER_CHOICE_H
#define TRN_APP_ENCODER_CHOICE_H

#include <QString>
#include <QUuid>

class EncoderChoice
{
public:
    virtual ~EncoderChoice() = default;

    // The weights for a directory whose encoder override names overrideProfileId (null: none):
    // that profile's weights when it is trained, else the default encoder's; empty for the
    // untrained encoder.
    virtual QString weightsPathFor(const QUuid &overrideProfileId) const = 0;
};

#endif
