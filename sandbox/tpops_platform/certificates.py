"""The platform's certificate, by an authority that is made for it."""
import os
import subprocess

NEW_KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "3"]


def request(*words):
    subprocess.run(["openssl", "req", "-x509", *NEW_KEY, *words], check=True, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


def make(directory, address, host):
    """ca.pem, the certificate good.pem for the host, and wrong_name.pem for another; keys beside them."""
    def path(name):
        return os.path.join(directory, name)
    request("-keyout", path("ca.key"), "-out", path("ca.pem"), "-subj", "/CN=Authority of the sandbox's platform",
            "-addext", "basicConstraints=critical,CA:true", "-addext", "keyUsage=critical,keyCertSign")
    for name, names in (("good", "IP:%s,DNS:%s" % (address, host)), ("wrong_name", "DNS:elsewhere.example")):
        request("-CA", path("ca.pem"), "-CAkey", path("ca.key"), "-keyout", path(name + ".key"), "-out",
                path(name + ".pem"), "-subj", "/CN=" + name, "-addext", "subjectAltName=" + names, "-addext",
                "basicConstraints=critical,CA:false")
