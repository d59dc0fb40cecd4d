/// The steps of zentak-journey, in files by what they are about. Each prints what it calls and what came back, and
/// throws std::runtime_error when something isn't as it should be. Files lie in `folder`.

#ifndef ZENTAK_EXAMPLES_JOURNEY_STAGES_H
#define ZENTAK_EXAMPLES_JOURNEY_STAGES_H

#include <string>
#include <vector>

#include "journey_session.h"

// journey_keys.cpp

/// Makes an RSA pair on the first token and an EC pair on both. Writes rsa.public.der, ec1.public.der, ec2.public.der.
void generateKeys(const std::vector<Token>& tokens, const std::string& folder);

/// Imports rsa.certificate.der for the first token's RSA key, with its issuers from the certificate authority folder.
void importCertificate(const Token& token, const std::string& folder);

/// Renames the first token's EC key pair and deletes the second's.
void renameAndDelete(const std::vector<Token>& tokens);

// journey_signatures.cpp

/// Signs document.txt and verifies. Writes rsa.sig, rsa-parts.sig, ec.sig and ec-parts.sig.
void signAndVerify(const Token& token, const std::string& folder);

/// Signs `data` with the token's RSA key, in one part.
Bytes signWithRsa(const Token& token, Bytes data);

// journey_secrets.cpp

/// Encrypts and decrypts with the RSA key; decrypts pkcs1.encrypted and oaep.encrypted and writes pkcs1.decrypted and
/// oaep.decrypted.
void encryptAndDecrypt(const Token& token, const std::string& folder);

/// Writes the SHA-256 digest of document.txt to document.sha256.
void digestDocument(const Token& token, const std::string& folder);

/// Derives the secret that the EC keys of both tokens share, and writes it to shared.secret; then the one of the first
/// token with the stranger whose point is in peer.point, written to peer.secret.
void deriveSecrets(const std::vector<Token>& tokens, const std::string& folder);

void drawRandomBytes(const Token& token);

// journey_events.cpp

/// Asks for the token to be unplugged and plugged in again, and shows what the session goes through. Ends the module.
void watchUnplugging(const Token& token, const std::string& pin);

#endif
