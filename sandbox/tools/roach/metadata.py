"""What is known of each backup, below the directory of --metadata-destination:

    backups.ini (backupset_nbu.ini of the older series)    all backups: key, size, the one before
    <static configuration>                                 a copy of the cluster's
    roach/<key>/manifest.json                              the files, objects and places in the log
    roach/<key>/<static configuration>
"""
import json
import os
import shutil
import stat
import time

from gspylib.common.DbClusterInfo import ConfigError, dbClusterInfo
from roach.cluster import Tool_Error


class Metadata(object):
    def __init__(self, directory, release):
        self.directory = directory
        self.release = release
        # the older series' agent names the directory of one backup; that lies where the others do
        parent = os.path.dirname(directory.rstrip("/"))
        self.top = (os.path.dirname(parent) if os.path.basename(parent) == "roach" else directory)
        self.name = "backupset_nbu.ini" if release.series == "100" else "backups.ini"

    def check(self):
        """The directory has to be there, and this user's alone to write."""
        if not self.top.startswith("/"):
            raise Tool_Error("[GAUSS-50213] : The path %s is not absolute." % self.directory)
        try:
            about = os.stat(self.top)
        except OSError as error:
            raise Tool_Error("[GAUSS-50201] : The %s does not exist: %s" % (self.top, error))
        if not stat.S_ISDIR(about.st_mode):
            raise Tool_Error("[GAUSS-50211] : The %s is not a directory." % self.top)
        if about.st_uid != os.geteuid() or about.st_mode & 0o022 or about.st_mode & 0o700 != 0o700:
            raise Tool_Error("[GAUSS-50104] : The owner or the mode of %s is incorrect: it has to be "
                             "the user's own, who alone writes it." % self.top)

    def make(self):
        """Makes the directory when it is missing: what belongs there comes from the media."""
        try:
            os.makedirs(self.top, 0o700, exist_ok=True)
        except OSError as error:
            raise Tool_Error("[GAUSS-50208] : Failed to create %s: %s" % (self.top, error))

    def keep(self, manifest):
        """What the media have told of a backup."""
        directory = self.of_key(manifest["key"])
        try:
            os.makedirs(directory, exist_ok=True)
            _write(os.path.join(directory, "manifest.json"), json.dumps(manifest))
        except OSError as error:
            raise Tool_Error("[GAUSS-50208] : Failed to write to %s: %s" % (directory, error))

    def prepare(self):
        self.check()
        try:
            os.makedirs(os.path.join(self.top, "roach"), exist_ok=True)
            os.makedirs(self.directory, exist_ok=True)
        except OSError as error:
            raise Tool_Error("[GAUSS-50208] : Failed to create %s: %s" % (self.directory, error))

    def of_key(self, key):
        return os.path.join(self.top, "roach", key)

    def new_key(self, log_directory):
        """A key that no backup has: the time, to the second. The last one is noted in the cluster's
        own directory, since the metadata may have been removed after it."""
        note = os.path.join(log_directory, "roach_last_key")
        try:
            last = None
            if os.path.exists(note):
                with open(note) as source:
                    last = source.read()
            while True:
                key = time.strftime("%Y%m%d_%H%M%S")
                if key != last and not os.path.exists(self.of_key(key)):
                    _write(note, key)
                    return key
                time.sleep(0.02)
        except OSError as error:
            raise Tool_Error("[GAUSS-50208] : Failed to write %s: %s" % (note, error))

    def manifest(self, key):
        """The manifest of a backup, or None when it is not here."""
        try:
            with open(os.path.join(self.of_key(key), "manifest.json")) as source:
                return json.load(source)
        except FileNotFoundError:
            return None
        except (OSError, ValueError) as error:
            raise Tool_Error("[GAUSS-53207] : Failed to read the metadata of %s: %s" % (key, error))

    def saved_nodes(self):
        """The names of the machines in the saved static configuration."""
        path = os.path.join(self.directory, self.release.saved_config_name)
        info = dbClusterInfo()
        try:
            info.initFromStaticConfigWithoutUser(path)
        except (OSError, ConfigError) as error:
            raise Tool_Error("[GAUSS-53207] : Failed to read %s: %s" % (path, error))
        return info.getClusterNodeNames()

    def entries(self, path=None):
        path = path or os.path.join(self.directory, self.name)
        try:
            with open(path) as source:
                text = source.read()
        except FileNotFoundError:
            return []
        try:
            # the numbers carry C suffixes
            return json.loads(text.replace("UL,", ",").replace("UL}", "}"))["BackupDetails"]
        except (ValueError, KeyError) as error:
            raise Tool_Error("[GAUSS-53207] : Failed to read %s: %s" % (path, error))

    def save(self, manifest, size, config):
        """Writes all that is kept of a new backup; the list last, since it makes the key known."""
        try:
            self._save(manifest, size, config)
        except OSError as error:
            raise Tool_Error("[GAUSS-50208] : Failed to write to %s: %s" % (self.top, error))

    def _save(self, manifest, size, config):
        key = manifest["key"]
        os.makedirs(self.of_key(key), exist_ok=True)
        _write(os.path.join(self.of_key(key), "manifest.json"), json.dumps(manifest))
        for directory in {self.of_key(key), self.top, self.directory}:
            shutil.copyfile(config, os.path.join(directory, self.release.saved_config_name))
        entries = self.entries(os.path.join(self.directory, self.name))
        entries.append({"BackupKey": key, "BackupType": manifest["type"],
                        "PriorBackupKey": manifest["prior"], "BackupTime": manifest["start_time"],
                        "BackupSize": size})
        text = self._text(entries)
        for directory in {self.of_key(key), self.top, self.directory}:
            _write(os.path.join(directory, self.name), text)

    def _text(self, entries):
        def size(value):
            if self.release.series == "100":
                return '"%s"' % (value if isinstance(value, str) else "%d B" % value)
            return "%dUL" % value
        return '{"BackupDetails":[%s]}\n' % ",".join(
            '{"BackupKey":"%s","BackupType":"%s","PriorBackupKey":"%s","BackupTime":%dUL,'
            '"BackupSize":%s}' % (one["BackupKey"], one["BackupType"], one["PriorBackupKey"],
                                  one["BackupTime"], size(one["BackupSize"]))
            for one in entries)


def _write(path, text):
    """Replaces a file in one step."""
    with open(path + ".new", "w") as target:
        target.write(text)
        target.flush()
        os.fsync(target.fileno())
    os.rename(path + ".new", path)
