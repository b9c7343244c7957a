#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// Ed25519 keys and signatures in minisign's formats, so that publishers may use the minisign
// tool as well as update-publish. The parsers take untrusted bytes and look at nothing beyond
// them; every field has its exact length or the whole input is refused.

// A public key: the base64 line of a minisign .pub file.
struct MinisignPublicKey
{
    QByteArray keyId; // 8 bytes, as stored
    QByteArray key;   // 32 bytes
};

// An unencrypted secret key ("minisign -G -W"), with the public half.
struct MinisignSecretKey
{
    QByteArray keyId;
    QByteArray seed; // the 32-byte Ed25519 private key
    QByteArray publicKey;
};

// The four lines of a .minisig file.
struct MinisignSignature
{
    bool prehashed = true; // "ED": the message's BLAKE2b-512 was signed; legacy "Ed": the message
    QByteArray keyId;
    QByteArray signature;       // 64 bytes
    QByteArray trustedComment;  // the text after "trusted comment: "
    QByteArray globalSignature; // 64 bytes, over signature + trustedComment
};

bool parseMinisignPublicKey(const QByteArray &line, MinisignPublicKey *key);
// The keys of a key file: one a line; blank lines, '#' lines and minisign's "untrusted
// comment:" lines are skipped, and so is a line that is no key. With damaged given, the first
// such line is told there ("line N ...: reason"), empty when there is none.
QList<MinisignPublicKey> parseMinisignKeyList(const QByteArray &text, QString *damaged = nullptr);
bool parseMinisignSignature(const QByteArray &text, MinisignSignature *signature);
bool parseMinisignSecretKey(const QByteArray &text, MinisignSecretKey *key);

// True when a key of keys with the signature's key id made both of its signatures.
bool verifyMinisign(const QByteArray &message, const MinisignSignature &signature,
                    const QList<MinisignPublicKey> &keys);

bool generateMinisignKey(MinisignSecretKey *key);
QByteArray minisignSecretKeyFile(const MinisignSecretKey &key);
QByteArray minisignPublicKeyFile(const MinisignSecretKey &key);
// The .minisig file of message, prehashed, with trustedComment on its third line; empty when
// signing fails.
QByteArray signMinisign(const QByteArray &message, const QByteArray &trustedComment,
                        const MinisignSecretKey &key);
// The key id as minisign shows it: 16 upper-case hexadecimal digits.
QByteArray minisignKeyIdText(const QByteArray &keyId);
