// The keys of a file metadata record and of the attribute dictionary inside it,
// and the values of its file type: one vocabulary on every device, so that a
// manifest written on one device is read and restored on another.
#pragma once

#include <string_view>

namespace vtl::keys {

// File metadata record.
inline constexpr std::string_view kFileAttributes = "VTLManifestFileAttributes";
inline constexpr std::string_view kFileExtendedAttributes = "VTLManifestFileExtendedAttributes";
inline constexpr std::string_view kFileHash = "VTLManifestFileHash";
inline constexpr std::string_view kSymbolicLinkTargetFile = "VTLManifestSymbolicLinkTargetFile";

// Attribute dictionary.
inline constexpr std::string_view kFileType = "FileType";
inline constexpr std::string_view kFileSize = "FileSize";
inline constexpr std::string_view kOwnerAccountID = "OwnerAccountID";
inline constexpr std::string_view kGroupOwnerAccountID = "GroupOwnerAccountID";
inline constexpr std::string_view kOwnerAccountName = "OwnerAccountName";
inline constexpr std::string_view kGroupOwnerAccountName = "GroupOwnerAccountName";
inline constexpr std::string_view kPosixPermissions = "PosixPermissions";
inline constexpr std::string_view kProtectionClass = "ProtectionClass";
inline constexpr std::string_view kCreationDate = "CreationDate";
inline constexpr std::string_view kModificationDate = "ModificationDate";
inline constexpr std::string_view kReferenceCount = "ReferenceCount";
inline constexpr std::string_view kSystemNumber = "SystemNumber";
inline constexpr std::string_view kSystemFileNumber = "SystemFileNumber";
inline constexpr std::string_view kImmutable = "Immutable";
inline constexpr std::string_view kAppendOnly = "AppendOnly";
inline constexpr std::string_view kBusy = "Busy";
inline constexpr std::string_view kExtensionHidden = "ExtensionHidden";
inline constexpr std::string_view kCreatorCode = "CreatorCode";
inline constexpr std::string_view kTypeCode = "TypeCode";

// File types.
inline constexpr std::string_view kTypeRegular = "Regular";
inline constexpr std::string_view kTypeDirectory = "Directory";
inline constexpr std::string_view kTypeSymbolicLink = "SymbolicLink";
inline constexpr std::string_view kTypeCharacterSpecial = "CharacterSpecial";
inline constexpr std::string_view kTypeBlockSpecial = "BlockSpecial";
inline constexpr std::string_view kTypeSocket = "Socket";
inline constexpr std::string_view kTypeFIFO = "FIFO";
inline constexpr std::string_view kTypeUnknown = "Unknown";

}  // namespace vtl::keys
