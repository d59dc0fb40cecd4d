// A program of the kind that Java's users write: the token as a key store of the SunPKCS11 provider. Run by the script
// `java` beside this file, which judges the files that it writes.

import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyPairGenerator;
import java.security.KeyStore;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.SecureRandom;
import java.security.Security;
import java.security.Signature;
import java.security.cert.CertificateFactory;
import java.security.cert.Certificate;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.Arrays;
import javax.crypto.Cipher;
import javax.crypto.KeyAgreement;

public final class TokenClient {
    private interface Attempt {
        void run() throws Exception;
    }

    private final Provider provider;
    private final KeyStore keyStore;
    private final byte[] data = Files.readAllBytes(Path.of("data"));

    private TokenClient(String configuration, String pin) throws Exception {
        provider = Security.getProvider("SunPKCS11").configure(configuration);
        keyStore = KeyStore.getInstance("PKCS11", provider);
        keyStore.load(null, pin.toCharArray());
    }

    private PrivateKey key(String name) throws Exception {
        return (PrivateKey) keyStore.getKey("System " + name, null);
    }

    private Certificate certificate(String name) throws Exception {
        return keyStore.getCertificate("System " + name);
    }

    private void sign(String name, String algorithm, PSSParameterSpec pss, String file) throws Exception {
        Signature signature = Signature.getInstance(algorithm, provider);
        if (pss != null) {
            signature.setParameter(pss);
        }
        signature.initSign(key(name));
        // In two parts, as streams arrive.
        signature.update(data, 0, 10);
        signature.update(data, 10, data.length - 10);
        Files.write(Path.of(file), signature.sign());
    }

    private static PSSParameterSpec pss(int bits, int saltLength) {
        String hash = "SHA-" + bits;
        return new PSSParameterSpec(hash, "MGF1", new MGF1ParameterSpec(hash), saltLength, 1);
    }

    private void signatures() throws Exception {
        for (int bits : new int[] {256, 384, 512}) {
            sign("rsa2048", "SHA" + bits + "withRSA", null, "rsa2048-v1.5-sha" + bits + ".sig");
            sign("rsa2048", "RSASSA-PSS", pss(bits, bits / 8), "rsa2048-pss-sha" + bits + ".sig");
            sign("p256", "SHA" + bits + "withECDSA", null, "p256-ecdsa-sha" + bits + ".sig");
            sign("p384", "SHA" + bits + "withECDSA", null, "p384-ecdsa-sha" + bits + ".sig");
        }
        sign("rsa2048", "RSASSA-PSS", pss(256, 20), "salt20.sig");
    }

    private KeyAgreement agreement(String name) throws Exception {
        KeyAgreement agreement = KeyAgreement.getInstance("ECDH", provider);
        agreement.init(key(name));
        try (InputStream peer = Files.newInputStream(Path.of("peer-" + name + ".certificate.pem"))) {
            agreement.doPhase(
                    CertificateFactory.getInstance("X.509").generateCertificate(peer).getPublicKey(), true);
        }
        return agreement;
    }

    private void agreements() throws Exception {
        for (String name : new String[] {"p256", "p384"}) {
            Files.write(Path.of(name + ".secret"), agreement(name).generateSecret());
        }
    }

    private void others() throws Exception {
        byte[] random = new byte[32];
        SecureRandom.getInstance("PKCS11", provider).nextBytes(random);
        Files.write(Path.of("random"), random);
        Files.write(Path.of("digest"), MessageDigest.getInstance("SHA-256", provider).digest(data));
    }

    /** What must not work, and what Java says then. */
    private static void refused(String name, Attempt attempt) {
        try {
            attempt.run();
            System.out.println("NOT REFUSED: " + name);
        } catch (Exception | OutOfMemoryError failure) {
            Throwable cause = failure;
            while (cause.getCause() != null) {
                cause = cause.getCause();
            }
            System.out.println("refused " + name + ": " + cause);
        }
    }

    private void refusals() {
        refused("decryption v1.5", () -> Cipher.getInstance("RSA/ECB/PKCS1Padding", provider));
        refused("decryption OAEP", () -> Cipher.getInstance("RSA/ECB/OAEPPadding", provider));
        refused("decryption by another provider", () -> Cipher.getInstance("RSA/ECB/PKCS1Padding")
                .init(Cipher.DECRYPT_MODE, key("rsa2048")));
        refused("verification on the token", () -> Signature.getInstance("SHA256withRSA", provider)
                .initVerify(certificate("rsa2048")));
        refused("agreement as a key", () -> agreement("p256").generateSecret("TlsPremasterSecret"));
        refused("generation without attributes", () -> KeyPairGenerator.getInstance("RSA", provider).generateKeyPair());
    }

    /** Verifies with the key from the certificate, which Java's own providers do when none is named. */
    private void verification() throws Exception {
        Signature signature = Signature.getInstance("SHA256withRSA");
        signature.initVerify(certificate("rsa2048"));
        signature.update(data);
        System.out.println("verified: " + signature.verify(Files.readAllBytes(Path.of("rsa2048-v1.5-sha256.sig"))));
        data[0] ^= 1;
        signature.update(data);
        System.out.println("verified: " + signature.verify(Files.readAllBytes(Path.of("rsa2048-v1.5-sha256.sig"))));
    }

    public static void main(String[] arguments) throws Exception {
        TokenClient client = new TokenClient(arguments[0], arguments[1]);
        Object[] aliases = java.util.Collections.list(client.keyStore.aliases()).toArray();
        Arrays.sort(aliases);
        System.out.println("aliases: " + Arrays.toString(aliases));
        client.signatures();
        client.agreements();
        client.others();
        client.refusals();
        client.verification();
    }
}
