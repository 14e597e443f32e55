#ifndef QUILLON_AUTOUPDATER_ANSWER_SIGNATURE_H
#define QUILLON_AUTOUPDATER_ANSWER_SIGNATURE_H

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// Signed answers, for builds configured with QUILLON_UPDATE_PUBLIC_KEY.
//
// Without signatures the answer's MD5 digests come from the same server as
// the files they vouch for, so whoever can change the answer (a broken
// mirror, a misissued certificate, a hostile network in front of a plain-HTTP
// server) chooses the program the updater starts. A build that carries the
// publisher's Ed25519 public key accepts an answer only when one of the
// signatures in the X-Quillon-Signature header verifies over the exact body
// bytes, the answer has not expired (so an old answer cannot be replayed for
// ever), and every file it names comes with its byte size and SHA-256 digest
// for the download to check. A build without a key never calls any of this.
namespace AnswerSignature {

// Response header with the base64 signatures of the body, separated by commas
// so that a publisher can sign with an old and a new key while rotating.
extern const char *const HEADER;

// Whether this build was given a public key, and so refuses unsigned answers.
bool isRequired();

// The public key built into the program (32 raw bytes); empty when none.
QByteArray builtInKey();

// Empty when `body` is signed by `key`, is a JSON object, carries an
// "expires" time (Unix seconds) later than `now`, and gives "size" and
// "sha256" for the "updater" and the "update_pack" it names. Then `answer`
// receives the object without "expires", so that an answer carrying nothing
// else reads as the empty "nothing to do" answer. Otherwise a short
// description of the first problem, for the log.
QString findProblem(const QByteArray &body, const QByteArray &signatures, const QByteArray &key,
                    qint64 now, QJsonObject *answer);

} // namespace AnswerSignature

#endif
