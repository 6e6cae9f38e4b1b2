"""Tests of tools/probe_gaussdb_config against stand-ins of the database's reader."""
import os
import pathlib
import subprocess
import sys
import tempfile
import textwrap
import unittest
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[3]
PROBE = ROOT / "tools" / "probe_gaussdb_config"

# a reader with the shape of the database's: nodes with lists of instances
READER = '''
import os
class instanceInfo(object):
    def __init__(self, mirrorId, instanceType, port, datadir, listenIps):
        self.mirrorId, self.instanceType, self.port = mirrorId, instanceType, port
        self.datadir, self.listenIps = datadir, listenIps
class dbNodeInfo(object):
    def __init__(self, name):
        self.name, self.backIps, self.sshIps = name, [name + "-back"], [name + "-ssh"]
        self.cmservers, self.gtms, self.coordinators, self.datanodes = [], [], [], []
        self.cmDataDir = ""
class dbClusterInfo(object):
    def __init__(self, checkSctpPort=False):
        self.name, self.appPath, self.dbNodes = "", "", []
    def initFromStaticConfig(self, user, static_config_file="", isLCCluster=False,
                             ignoreLocalEnv=False):
        print("<<DEBUG>> noise on stdout")
        os.system("echo noise of a child")
        text = open(static_config_file).read()
        if text != "good" + user:
            raise Exception("[GAUSS-51236]\\n  broken file")
        a, b = dbNodeInfo("a"), dbNodeInfo('b<&"')
        a.cmDataDir = "/cm"
        a.cmservers = [instanceInfo(1, 0, 5000, "/cm/cm_server", ["1.1.1.1"])]
        b.cmservers = [instanceInfo(1, 1, 5500, "/cm/cm_server", ["1.1.1.2"])]
        a.gtms = [instanceInfo(2, 0, 6000, "/gtm", ["1.1.1.1"])]
        a.coordinators = [instanceInfo(3, -1, 8000, "/coo", ["1.1.1.1"])]
        a.datanodes = [instanceInfo(4, 0, 40000, "/dn1", ["1.1.1.1"]),
                       instanceInfo(5, 1, 45000, "/dn2s", ["1.1.1.1"])]
        b.datanodes = [instanceInfo(4, 1, 45000, "/dn1s", ["1.1.1.2"]),
                       instanceInfo(5, 0, 40000, "/dn2", ["1.1.1.2"]),
                       instanceInfo(4, 2, 50000, "/dn1d", ["1.1.1.2"])]
        self.dbNodes = [a, b]
'''
GENERATOR = '''
    def generateXMLFromStaticConfigFile(self, user, static_config_file, xmlFilePath, version=201,
                                        newNodeNames=None):
        print("<<DEBUG>> No SN found for DN(dn_6001)")
        text = open(static_config_file).read()
        if text != "good" + user:
            raise Exception("broken file")
        fd = os.open(xmlFilePath, os.O_WRONLY | os.O_CREAT, 0o600)
        os.write(fd, b"<ROOT><CLUSTER/><DEVICELIST><DEVICE sn='1'/></DEVICELIST></ROOT>")
        os.close(fd)
'''


class Probe(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.path = pathlib.Path(self.directory.name)
        self.scripts, self.conf = self.path / "script", self.path / "cluster_static_config"
        self.xml = self.path / "out" / "cluster.xml"
        self.xml.parent.mkdir()
        self.conf.write_text("goodomm")
        self.reader(READER)

    def reader(self, text):
        package = self.scripts / "gspylib" / "common"
        package.mkdir(parents=True, exist_ok=True)
        (self.scripts / "gspylib" / "__init__.py").write_text("")
        (package / "__init__.py").write_text("")
        (package / "DbClusterInfo.py").write_text(text)

    def probe(self, *arguments, **environment):
        if not arguments:
            arguments = ("-u", "omm", "-c", str(self.conf), "-o", str(self.xml), "-p",
                         str(self.scripts))
        environment = dict(os.environ, **environment)
        environment.pop("PYTHONDONTWRITEBYTECODE", None)
        return subprocess.run([sys.executable, str(PROBE)] + list(arguments), env=environment,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              check=False)

    def assert_fails(self, result, message):
        self.assertEqual(1, result.returncode)
        self.assertEqual("", result.stdout)
        self.assertEqual(1, len(result.stderr.splitlines()), result.stderr)
        self.assertIn(message, result.stderr)

    def params(self, place):
        root = xml.etree.ElementTree.parse(self.xml).getroot()
        return [(p.get("name"), p.get("value")) for p in root.find(place).findall("PARAM")]

    def test_the_vocabulary_is_the_cluster_files(self):
        result = self.probe(GS_CLUSTER_NAME="c1", GAUSSHOME="/opt/app")
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))
        self.assertEqual([("clusterName", "c1"), ("nodeNames", 'a,b<&"'),
                          ("gaussdbAppPath", "/opt/app")], self.params("CLUSTER"))
        self.assertEqual(
            [("name", "a"), ("backIp1", "a-back"), ("sshIp1", "a-ssh"), ("cmsNum", "1"),
             ("cmServerPortBase", "5000"), ("cmDir", "/cm"), ("gtmNum", "1"),
             ("gtmPortBase", "6000"), ("gtmListenIp1", "1.1.1.1"), ("gtmDir1", "/gtm"),
             ("cooNum", "1"), ("cooPortBase", "8000"), ("cooListenIp1", "1.1.1.1"),
             ("cooDir1", "/coo"), ("dataNum", "1"), ("dataPortBase", "40000"),
             ("dataPortStandby", "45000"), ("dataListenIp", "1.1.1.1"),
             ("dataNode1", '/dn1,b<&",/dn1s,b<&",/dn1d')],
            self.params("DEVICELIST/DEVICE[1]"))
        second = dict(self.params("DEVICELIST/DEVICE[2]"))
        self.assertEqual('b<&"', second["name"])
        self.assertEqual(("0", "5500"), (second["cmsNum"], second["cmServerPortStandby"]))
        self.assertEqual(("0", "0"), (second["gtmNum"], second["cooNum"]))
        self.assertEqual("/dn2,a,/dn2s", second["dataNode1"])

    def test_the_releases_own_generator_is_used_where_there_is_one(self):
        self.reader(READER + GENERATOR)
        self.xml.write_text("x" * 10000)
        self.assertEqual(0, self.probe().returncode)
        self.assertEqual("<ROOT><CLUSTER/><DEVICELIST><DEVICE sn='1'/></DEVICELIST></ROOT>",
                         self.xml.read_text())

    def test_the_xml_goes_to_stdout_and_nothing_else_does(self):
        for text in (READER + "print('noise of loading')", READER + GENERATOR):
            self.reader(text)
            result = self.probe("-u", "omm", "-c", str(self.conf), "-o", "-", "-p",
                                str(self.scripts))
            self.assertEqual((0, ""), (result.returncode, result.stderr))
            root = xml.etree.ElementTree.fromstring(result.stdout.encode())
            self.assertEqual("ROOT", root.tag)
            self.assertEqual([], os.listdir(self.xml.parent))

    def test_nothing_is_left_behind(self):
        scratch = self.path / "tmp"
        scratch.mkdir()
        self.assertEqual(0, self.probe(TMPDIR=str(scratch)).returncode)
        # killed while the database's reader runs
        self.reader(READER.replace('print("<<DEBUG>> noise on stdout")',
                                   "import signal; os.kill(os.getpid(), signal.SIGKILL)"))
        self.assertEqual(-9, self.probe(TMPDIR=str(scratch)).returncode)
        self.assertEqual([], list(self.path.rglob("__pycache__")))
        self.assertEqual([], os.listdir(scratch))
        self.assertEqual(["cluster.xml"], os.listdir(self.xml.parent))

    def test_a_missing_reader(self):
        (self.scripts / "gspylib" / "common" / "DbClusterInfo.py").unlink()
        self.assert_fails(self.probe(), "no reader of the cluster's configuration in")
        self.assertFalse(self.xml.exists())

    def test_a_reader_that_cannot_be_loaded(self):
        for text in ("syntax error here", "import nothing_like_this", "import sys\nsys.exit(0)",
                     "x = 1"):
            self.reader(text)
            self.assert_fails(self.probe(), "no reader of the cluster's configuration in")

    def test_a_file_that_the_reader_refuses_leaves_the_old_xml(self):
        self.conf.write_text("bad")
        self.xml.write_text("old")
        for text in (READER, READER + GENERATOR):
            self.reader(text)
            self.assert_fails(self.probe(), "broken file")
            self.assertEqual("old", self.xml.read_text())
            self.assertEqual(["cluster.xml"], os.listdir(self.xml.parent))

    def test_a_file_that_is_not_there_or_no_file(self):
        self.conf.unlink()
        self.assert_fails(self.probe(), "is not a file")
        self.conf.mkdir()
        self.assert_fails(self.probe(), "is not a file")

    def test_a_reader_that_finds_nothing_or_ends_the_process(self):
        for body in ("pass", "raise SystemExit(0)"):
            self.reader(textwrap.dedent('''
                class dbClusterInfo(object):
                    name, appPath, dbNodes = "", "", []
                    def initFromStaticConfig(self, *arguments):
                        %s
                ''' % body))
            self.assert_fails(self.probe(), "cannot read")
            self.assertFalse(self.xml.exists())

    def test_an_output_directory_that_is_not_there(self):
        self.xml = self.path / "none" / "cluster.xml"
        self.assert_fails(self.probe(), "cannot write %s: " % self.xml)

    def test_wrong_options(self):
        for arguments in (["-u", "omm"], ["-x"], ["-u"], ["-u", "", "-c", "c", "-o", "o", "-p", "p"],
                          ["-u", "u", "-c", "c", "-o", "o", "-p", "p", "more"]):
            self.assert_fails(self.probe(*arguments), "probe_gaussdb_config: ")

    def test_the_script_is_python_2_too(self):
        if sys.version_info >= (3, 13):
            self.skipTest("this Python cannot parse Python 2 any more")
        import warnings
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            from lib2to3 import pygram, pytree
            from lib2to3.pgen2 import driver
        # Debian has no Python 2 to run it with: its grammar, without print as a statement since the
        # script takes that from __future__, is the nearest check
        grammar = pygram.python_grammar_no_print_statement
        driver.Driver(grammar, convert=pytree.convert).parse_string(PROBE.read_text())
        for newer in ("f\"", "f'", "nonlocal ", ":=", "yield from", "raise Failure from"):
            self.assertNotIn(newer, PROBE.read_text())


if __name__ == "__main__":
    unittest.main()
