/// What the device library does without a token: its instance, what is plugged in, and the reading of certificates.

#ifndef ZENTAK_DEVICE_LIBRARY_H
#define ZENTAK_DEVICE_LIBRARY_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/byte_view.h"
#include "device/zentak_dsc_library.h"

namespace zentak::device {

/// Null if the library has none to give.
void* createInstance();
void releaseInstance(void* instance);

/// The names of the devices that are plugged in, usable tokens or not.
std::vector<std::string> connectedDevices(void* instance);
TokenInfo tokenInfo(const std::string& device, void* instance);

/// What the library reads from a certificate, nothing if it can't.
std::optional<CertificateDetails> certificateDetails(ByteView der);

/// DER of a certificate's subject, issuer and serial number; empty if the library can't read it.
std::vector<unsigned char> certificateSubject(ByteView der);
std::vector<unsigned char> certificateIssuer(ByteView der);
std::vector<unsigned char> certificateSerialNumber(ByteView der);

/// A file's name and the DER in it.
using CertificateFile = std::pair<std::string, std::vector<unsigned char>>;

/// The certificate files of a folder, by their extensions; PEM comes back as DER.
std::vector<CertificateFile> certificateFiles(const std::string& folder);

}  // namespace zentak::device

#endif
