/*
** encoder_record.h -- which encoder built an index.
**
** Vectors of different encoders are not comparable, so an index is only searched with the
** encoder that built it. The file "encoder" in the index directory, beside the store, holds one
** line naming that encoder: "untrained" for the engine's seed-42 encoder (no weights file, or one
** that cannot be read), else "sha1 ", the 40 hex digits of the weights file's SHA-1 and
** " embedding 2": how the engine makes a vector of the file's rows (since 2, a bag of words counts
** a token the text holds c times 1 + ln c times, not c). An index whose record is missing or
** names another encoder or another way of embedding is rebuilt when the application opens it.
**
** Hashing a weights file of 40 MB takes a fraction of a second, so identities are cached by path,
** size and modification time for the life of the process (guarded by a mutex: tabs open on the
** main thread, indexing runs on the pool).
*/
#ifndef TRN_APP_ENCODER_RECORD_H
#define TRN_APP_ENCODER_RECORD_H

#include <QString>

namespace EncoderRecord
{

// The line that names the encoder of weightsPath (empty: the untrained encoder).
QString identity(const QString &weightsPath);
// "<directoryPath>/.tarnwick/encoder".
QString path(const QString &directoryPath);
// True when directoryPath's index records the encoder of weightsPath.
bool matches(const QString &directoryPath, const QString &weightsPath);
// Records the encoder of weightsPath for directoryPath's index. Returns false when the file
// cannot be written (the index is then rebuilt at the next opening).
bool write(const QString &directoryPath, const QString &weightsPath);

} // namespace EncoderRecord

#endif
