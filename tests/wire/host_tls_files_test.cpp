// Certificate and private key that the host cannot use: it ends with one line that says why.

#include "tests/support/host_run.h"
#include "tests/support/tls_files.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <filesystem>
#include <memory>

namespace {

using Words = std::vector<std::string>;

/// The key of a file, written again with a pass phrase.
void write_encrypted(const std::string& from, const std::string& path)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> source(std::fopen(from.c_str(), "r"), std::fclose);
    const std::unique_ptr<FILE, int (*)(FILE*)> target(std::fopen(path.c_str(), "w"), std::fclose);
    ASSERT_TRUE(source && target);
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(
        PEM_read_PrivateKey(source.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    char phrase[] = "secret";
    ASSERT_EQ(1, PEM_write_PKCS8PrivateKey(target.get(), key.get(), EVP_aes_128_cbc(), phrase, 6,
                                           nullptr, nullptr));
}

} // namespace

TEST(Host_TLS_Files, that_cannot_be_used_are_told_and_nothing_is_started)
{
    const Temporary_Folder folder;
    const Tls_Files good = write_tls_files(folder.path());
    std::filesystem::create_directory(folder.path() + "/other");
    const Tls_Files other = write_tls_files(folder.path() + "/other");
    const std::string text = folder.write("text.pem", "no PEM\n");
    const std::string encrypted = folder.path() + "/encrypted.pem";
    write_encrypted(good.private_key, encrypted);
    const std::string lost = folder.path() + "/lost.pem";
    const std::string& certificate = good.certificate;
    const struct {
        std::string certificate;
        std::string key;
        std::string error;
    } rows[] = {
        {lost, good.private_key,
         "cannot read TLS certificate " + lost + ": No such file or directory"},
        {certificate, lost, "cannot read TLS private key " + lost + ": No such file or directory"},
        {folder.path(), good.private_key,
         "cannot read TLS certificate " + folder.path() + ": Is a directory"},
        {certificate, folder.path(),
         "cannot read TLS private key " + folder.path() + ": Is a directory"},
        {text, good.private_key, "cannot use TLS certificate " + text + ": no start line"},
        {certificate, other.private_key,
         "cannot use TLS private key " + other.private_key + " with certificate " + certificate +
             ": key values mismatch"},
        {certificate, encrypted,
         "cannot use TLS private key " + encrypted + " with certificate " + certificate +
             ": the key is encrypted with a pass phrase"},
        {certificate, text,
         "cannot use TLS private key " + text + " with certificate " + certificate +
             ": the file holds no private key in PEM form (unsupported)"},
    };
    for (const auto& row : rows) {
        const Host_Run run = run_host(
            {"--tls-certificate", row.certificate, "--tls-private-key", row.key}, {"-t", "1"});
        EXPECT_EQ(1, run.status);
        EXPECT_EQ(Words{row.error}, run.refusal);
    }
}
