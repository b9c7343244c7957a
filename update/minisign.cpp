#include "update/minisign.h"

#include "update/digest.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <memory>

namespace {

constexpr int keyIdLength = 8;
constexpr int keyLength = 32;
constexpr int signatureLength = 64;
const QByteArray ed25519 = QByteArrayLiteral("Ed");
const QByteArray prehashedEd25519 = QByteArrayLiteral("ED");
const QByteArray untrustedPrefix = QByteArrayLiteral("untrusted comment:");
const QByteArray trustedPrefix = QByteArrayLiteral("trusted comment: ");
// Secret key layout: algorithm, KDF (none), checksum algorithm, KDF salt, opslimit, memlimit,
// key id, seed and public key, checksum. Without a KDF minisign leaves the checksum zero.
constexpr int secretKeyLength = 2 + 2 + 2 + 32 + 8 + 8 + keyIdLength + 2 * keyLength + 32;
constexpr int secretKeyIdOffset = 2 + 2 + 2 + 32 + 8 + 8;

using PKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using MdContext = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

// Exactly length bytes of strict base64, or empty.
QByteArray decodeBase64(const QByteArray &text, int length)
{
    const auto decoded = QByteArray::fromBase64Encoding(
            text.trimmed(), QByteArray::Base64Encoding | QByteArray::AbortOnBase64DecodingErrors);
    return decoded && decoded.decoded.size() == length ? decoded.decoded : QByteArray();
}

QByteArray withoutCarriageReturn(QByteArray line)
{
    if (line.endsWith('\r'))
        line.chop(1);
    return line;
}

bool verifyEd25519(const QByteArray &publicKey, const QByteArray &message,
                   const QByteArray &signature)
{
    PKey key(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr,
                                         reinterpret_cast<const unsigned char *>(publicKey.data()),
                                         size_t(publicKey.size())),
             EVP_PKEY_free);
    MdContext context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    return key && context
           && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1
           && EVP_DigestVerify(context.get(),
                               reinterpret_cast<const unsigned char *>(signature.data()),
                               size_t(signature.size()),
                               reinterpret_cast<const unsigned char *>(message.data()),
                               size_t(message.size()))
                      == 1;
}

QByteArray signEd25519(const QByteArray &seed, const QByteArray &message)
{
    PKey key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr,
                                          reinterpret_cast<const unsigned char *>(seed.data()),
                                          size_t(seed.size())),
             EVP_PKEY_free);
    MdContext context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    QByteArray signature(signatureLength, '\0');
    size_t length = size_t(signature.size());
    if (!key || !context
        || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1
        || EVP_DigestSign(context.get(), reinterpret_cast<unsigned char *>(signature.data()),
                          &length, reinterpret_cast<const unsigned char *>(message.data()),
                          size_t(message.size()))
                   != 1
        || length != size_t(signatureLength))
        return QByteArray();
    return signature;
}

QByteArray publicKeyOf(const QByteArray &seed)
{
    PKey key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr,
                                          reinterpret_cast<const unsigned char *>(seed.data()),
                                          size_t(seed.size())),
             EVP_PKEY_free);
    QByteArray publicKey(keyLength, '\0');
    size_t length = size_t(publicKey.size());
    if (!key
        || EVP_PKEY_get_raw_public_key(key.get(),
                                       reinterpret_cast<unsigned char *>(publicKey.data()), &length)
                   != 1
        || length != size_t(keyLength))
        return QByteArray();
    return publicKey;
}

QByteArray blake2b512(const QByteArray &message)
{
    Digest digest(Digest::Blake2b512);
    digest.addData(message.constData(), message.size());
    return digest.result();
}

} // namespace

bool parseMinisignPublicKey(const QByteArray &line, MinisignPublicKey *key)
{
    const QByteArray bytes = decodeBase64(line, 2 + keyIdLength + keyLength);
    if (bytes.isEmpty() || !bytes.startsWith(ed25519))
        return false;
    key->keyId = bytes.mid(2, keyIdLength);
    key->key = bytes.mid(2 + keyIdLength);
    return true;
}

QList<MinisignPublicKey> parseMinisignKeyList(const QByteArray &text, QString *damaged)
{
    QList<MinisignPublicKey> keys;
    const QList<QByteArray> lines = text.split('\n');
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).trimmed();
        if (line.isEmpty() || line.startsWith('#') || line.startsWith(untrustedPrefix))
            continue;
        MinisignPublicKey key;
        if (parseMinisignPublicKey(line, &key)) {
            keys.append(key);
        } else if (damaged && damaged->isEmpty()) {
            const bool fullLength = !decodeBase64(line, 2 + keyIdLength + keyLength).isEmpty();
            *damaged = QStringLiteral("line %1 \"%2\": %3")
                               .arg(QString::number(i + 1), QString::fromUtf8(line.left(60)),
                                    fullLength ? QStringLiteral("the algorithm is not Ed25519")
                                               : QStringLiteral("not a minisign public key"));
        }
    }
    return keys;
}

bool parseMinisignSignature(const QByteArray &text, MinisignSignature *signature)
{
    QList<QByteArray> lines = text.split('\n');
    // The file ends with a newline; nothing may follow the fourth line.
    while (lines.size() > 4 && withoutCarriageReturn(lines.last()).isEmpty())
        lines.removeLast();
    if (lines.size() != 4)
        return false;
    std::transform(lines.begin(), lines.end(), lines.begin(), withoutCarriageReturn);
    const QByteArray sig = decodeBase64(lines.at(1), 2 + keyIdLength + signatureLength);
    const QByteArray global = decodeBase64(lines.at(3), signatureLength);
    if (!lines.at(0).startsWith(untrustedPrefix) || !lines.at(2).startsWith(trustedPrefix)
        || sig.isEmpty() || global.isEmpty())
        return false;
    const QByteArray algorithm = sig.left(2);
    if (algorithm != prehashedEd25519 && algorithm != ed25519)
        return false;
    signature->prehashed = algorithm == prehashedEd25519;
    signature->keyId = sig.mid(2, keyIdLength);
    signature->signature = sig.mid(2 + keyIdLength);
    signature->trustedComment = lines.at(2).mid(trustedPrefix.size());
    signature->globalSignature = global;
    return true;
}

bool parseMinisignSecretKey(const QByteArray &text, MinisignSecretKey *key)
{
    QByteArray bytes;
    for (const QByteArray &line : text.split('\n')) {
        const QByteArray trimmed = line.trimmed();
        if (!trimmed.isEmpty() && !trimmed.startsWith(untrustedPrefix)) {
            bytes = decodeBase64(trimmed, secretKeyLength);
            break;
        }
    }
    // An encrypted key ("Sc" KDF) would need its password; only "\0\0" is taken.
    if (bytes.isEmpty() || !bytes.startsWith(ed25519) || bytes.mid(2, 2) != QByteArray(2, '\0'))
        return false;
    key->keyId = bytes.mid(secretKeyIdOffset, keyIdLength);
    key->seed = bytes.mid(secretKeyIdOffset + keyIdLength, keyLength);
    key->publicKey = bytes.mid(secretKeyIdOffset + keyIdLength + keyLength, keyLength);
    return publicKeyOf(key->seed) == key->publicKey;
}

bool verifyMinisign(const QByteArray &message, const MinisignSignature &signature,
                    const QList<MinisignPublicKey> &keys)
{
    const QByteArray signedMessage = signature.prehashed ? blake2b512(message) : message;
    for (const MinisignPublicKey &key : keys) {
        if (key.keyId == signature.keyId && !signedMessage.isEmpty()
            && verifyEd25519(key.key, signedMessage, signature.signature)
            && verifyEd25519(key.key, signature.signature + signature.trustedComment,
                             signature.globalSignature))
            return true;
    }
    return false;
}

bool generateMinisignKey(MinisignSecretKey *key)
{
    QByteArray seed(keyLength, '\0');
    QByteArray keyId(keyIdLength, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char *>(seed.data()), keyLength) != 1
        || RAND_bytes(reinterpret_cast<unsigned char *>(keyId.data()), keyIdLength) != 1)
        return false;
    key->seed = seed;
    key->keyId = keyId;
    key->publicKey = publicKeyOf(seed);
    return !key->publicKey.isEmpty();
}

QByteArray minisignSecretKeyFile(const MinisignSecretKey &key)
{
    QByteArray bytes = ed25519 + QByteArray(2, '\0') + QByteArrayLiteral("B2");
    bytes += QByteArray(secretKeyIdOffset - bytes.size(), '\0');
    bytes += key.keyId + key.seed + key.publicKey + QByteArray(32, '\0');
    return "untrusted comment: minisign secret key " + minisignKeyIdText(key.keyId) + '\n'
           + bytes.toBase64() + '\n';
}

QByteArray minisignPublicKeyFile(const MinisignSecretKey &key)
{
    return "untrusted comment: minisign public key " + minisignKeyIdText(key.keyId) + '\n'
           + (ed25519 + key.keyId + key.publicKey).toBase64() + '\n';
}

QByteArray signMinisign(const QByteArray &message, const QByteArray &trustedComment,
                        const MinisignSecretKey &key)
{
    const QByteArray signature = signEd25519(key.seed, blake2b512(message));
    const QByteArray global =
            signature.isEmpty() ? QByteArray() : signEd25519(key.seed, signature + trustedComment);
    if (global.isEmpty())
        return QByteArray();
    return "untrusted comment: signature from minisign secret key " + minisignKeyIdText(key.keyId)
           + '\n' + (prehashedEd25519 + key.keyId + signature).toBase64() + '\n' + trustedPrefix
           + trustedComment + '\n' + global.toBase64() + '\n';
}

QByteArray minisignKeyIdText(const QByteArray &keyId)
{
    QByteArray reversed = keyId;
    std::reverse(reversed.begin(), reversed.end());
    return reversed.toHex().toUpper();
}
