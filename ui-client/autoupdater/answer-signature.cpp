#include "answer-signature.h"

#include <QJsonDocument>
#include <QJsonValue>
#include <QList>

#include <algorithm>
#include <cmath>

#ifdef QUILLON_UPDATE_PUBLIC_KEY
#include <openssl/evp.h>

#include <memory>
#endif

namespace AnswerSignature {

const char *const HEADER = "X-Quillon-Signature";

namespace {

const int KEY_BYTES = 32;
const int SIGNATURE_BYTES = 64;
// Sizes are JSON numbers, read as doubles: above 2^53 they are no longer exact.
const double MAX_EXACT_SIZE = 9007199254740992.0;

bool isSignedBy(const QByteArray &key, const QByteArray &body, const QByteArray &signature) {
#ifdef QUILLON_UPDATE_PUBLIC_KEY
    if (key.size() != KEY_BYTES || signature.size() != SIGNATURE_BYTES)
        return false;
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> public_key(
        EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr,
                                    reinterpret_cast<const unsigned char *>(key.constData()),
                                    static_cast<size_t>(key.size())),
        EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                    EVP_MD_CTX_free);
    // Ed25519 hashes the message itself: no digest is named, and the whole
    // body goes through one EVP_DigestVerify call.
    if (!public_key || !context ||
        EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, public_key.get()) != 1)
        return false;
    return EVP_DigestVerify(context.get(),
                            reinterpret_cast<const unsigned char *>(signature.constData()),
                            static_cast<size_t>(signature.size()),
                            reinterpret_cast<const unsigned char *>(body.constData()),
                            static_cast<size_t>(body.size())) == 1;
#else
    Q_UNUSED(key)
    Q_UNUSED(body)
    Q_UNUSED(signature)
    return false;
#endif
}

bool isSignedByAny(const QByteArray &key, const QByteArray &body, const QByteArray &signatures) {
    const QList<QByteArray> items = signatures.split(',');
    return std::any_of(items.begin(), items.end(), [&](const QByteArray &item) {
        const QByteArray::FromBase64Result signature =
            QByteArray::fromBase64Encoding(item.trimmed(), QByteArray::AbortOnBase64DecodingErrors);
        return signature && isSignedBy(key, body, *signature);
    });
}

bool isSha256Hex(const QString &text) {
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](QChar c) {
               return (c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
                      (c >= QLatin1Char('a') && c <= QLatin1Char('f')) ||
                      (c >= QLatin1Char('A') && c <= QLatin1Char('F'));
           });
}

// The download stops at "size" and checks "sha256": without them a signed
// answer would still let the server send any bytes that match an MD5 digest.
QString checkFile(const QJsonObject &answer, const QString &key) {
    if (!answer.contains(key))
        return QString();
    const QJsonObject file = answer.value(key).toObject();
    const QJsonValue size = file.value(QLatin1String("size"));
    const double bytes = size.toDouble(-1);
    if (!size.isDouble() || bytes < 0 || bytes > MAX_EXACT_SIZE || std::floor(bytes) != bytes)
        return key + QStringLiteral(" has no valid size");
    if (!isSha256Hex(file.value(QLatin1String("sha256")).toString()))
        return key + QStringLiteral(" has no valid sha256");
    return QString();
}

} // namespace

bool isRequired() {
    return !builtInKey().isEmpty();
}

QByteArray builtInKey() {
#ifdef QUILLON_UPDATE_PUBLIC_KEY
    // The build checked the option's form: 32 bytes in base64.
    return QByteArray::fromBase64(QByteArrayLiteral(QUILLON_UPDATE_PUBLIC_KEY));
#else
    return QByteArray();
#endif
}

QString findProblem(const QByteArray &body, const QByteArray &signatures, const QByteArray &key,
                    qint64 now, QJsonObject *answer) {
    if (signatures.isEmpty())
        return QStringLiteral("no signature");
    if (!isSignedByAny(key, body, signatures))
        return QStringLiteral("no valid signature");

    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return QStringLiteral("not a JSON object");
    QJsonObject object = document.object();
    const QJsonValue expires = object.value(QLatin1String("expires"));
    if (!expires.isDouble())
        return QStringLiteral("no expiry time");
    if (expires.toDouble() <= static_cast<double>(now))
        return QStringLiteral("expired");
    for (const QString &file : {QStringLiteral("updater"), QStringLiteral("update_pack")}) {
        const QString problem = checkFile(object, file);
        if (!problem.isEmpty())
            return problem;
    }

    object.remove(QLatin1String("expires"));
    *answer = object;
    return QString();
}

} // namespace AnswerSignature
