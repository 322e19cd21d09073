#!/usr/bin/python3 -I
"""Writes the SPDX bill of materials of a program: what the linker put into it and what it loads.

It is made from the link map and the program themselves, so nothing linked can be missing; the system's package database
provides the package and version of each library.
"""

import argparse
import datetime
import json
import os
import re
import subprocess
import sys
import uuid
from pathlib import Path

# The licences of the packages that may be linked, by source package. Any other package stops the build until its
# licence has been checked and added here.
LICENCES = {
    r"boost[\d.]+": "BSL-1.0",
    r"sqlite3": "blessing",
    r"cli11": "BSD-3-Clause",
    r"nlohmann-json3": "MIT",
    r"util-linux": "LGPL-2.1-or-later",  # of libsmartcols; its programs have other licences
    r"gcc-\d+(-cross)?": "GPL-3.0-or-later WITH GCC-exception-3.1",
    r"glibc|cross-toolchain-base": "LGPL-2.1-or-later",
}
FORMAT = "${Package}\t${Version}\t${Architecture}\t${source:Package}\t${source:Version}\n"


class BillError(Exception):
    """The reason why no bill can be made, for the user."""


def output_of(*words):
    result = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise BillError(f"{' '.join(words)} failed: {result.stderr.strip()}")
    return result.stdout


class Package:
    """An installed Debian package, given as "name" or "name:architecture": name, version, architecture, source,
    source_version, licence."""

    def __init__(self, name):
        fields = output_of("dpkg-query", "-W", "-f", FORMAT, name).rstrip("\n").split("\t")
        self.name, self.version, self.architecture, self.source, self.source_version = fields
        for pattern, self.licence in LICENCES.items():
            if re.fullmatch(pattern, self.source):
                return
        raise BillError(f"{name} ({self.source}) is linked: check its licence and list it in {__file__}")


def owners_of(path):
    """The packages that contain the file, such as ["libsqlite3-dev:amd64"]; several if architectures share it.

    The package may list it below /lib or below /usr/lib.
    """
    real = os.path.realpath(path)
    for candidate in (real, real.removeprefix("/usr")):
        words = ["dpkg-query", "-S", candidate]
        result = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        if result.returncode == 0:
            return result.stdout.partition(": ")[0].split(", ")
    raise BillError(f"{path} is linked and belongs to no package")


def packages_of(paths):
    """{path: its package}. If several packages own a file, the one with the architecture of the other files counts."""
    owners = {path: owners_of(path) for path in paths}
    architectures = {names[0].partition(":")[2] for names in owners.values() if len(names) == 1}
    return {path: next((name for name in names if name.partition(":")[2] in architectures), names[0])
            for path, names in owners.items()}


def linked_files(link_map, build):
    """What the linker took from outside the build: objects, archives of which it took a member, shared libraries."""
    text = Path(link_map).read_text(encoding="utf-8", errors="replace")
    members = text.partition("Archive member included")[2].partition("\n\n\n")[0]
    archives = {os.path.normpath(path) for path in re.findall(r"^(/\S+\.a)\(", members, re.MULTILINE)}
    found = set()
    for path in re.findall(r"^LOAD (/\S+)$", text, re.MULTILINE):
        path = os.path.normpath(path)
        if not path.startswith(build + "/") and (not path.endswith(".a") or path in archives):
            found.add(path)
    return found


def library_name(path):
    """The name by which programs load a shared library, or None for another file, such as a linker script."""
    with open(path, "rb") as file:
        if file.read(4) != b"\x7fELF":
            return None
    found = re.search(r"\(SONAME\)\s+Library soname: \[(.*)\]", output_of("readelf", "-dW", path))
    return found and found[1]


def needed(program):
    """The names of the shared libraries that the program loads."""
    return set(re.findall(r"\(NEEDED\)\s+Shared library: \[(.*)\]", output_of("readelf", "-dW", program)))


def bill(arguments):
    build = os.path.realpath(arguments.build)
    files = linked_files(arguments.map, build)
    names = {path: library_name(path) for path in files if ".so" in os.path.basename(path)}
    shared = {path for path, name in names.items() if name in needed(arguments.program)}
    linked = {path for path in files if ".so" not in os.path.basename(path)} | set(arguments.header)
    owners = packages_of(sorted(shared | linked))
    linkage = {"DYNAMIC_LINK": {owners[path] for path in shared}, "STATIC_LINK": {owners[path] for path in linked}}
    missing = needed(arguments.program) - {names[path] for path in shared}
    if missing:
        raise BillError(f"the link map does not list the paths of {' '.join(sorted(missing))}")

    name = os.path.basename(arguments.program)
    packages = [{"SPDXID": f"SPDXRef-{name}", "name": name, "versionInfo": arguments.version,
                 "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": "Apache-2.0",
                 "licenseDeclared": "Apache-2.0", "copyrightText": "NOASSERTION"}]
    relationships = [{"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES",
                      "relatedSpdxElement": f"SPDXRef-{name}"}]
    for owner in sorted(set(owners.values())):
        package = Package(owner)
        identifier = "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", package.name)
        locator = f"pkg:deb/debian/{package.name}@{package.version}?arch={package.architecture}"
        packages.append({"SPDXID": identifier, "name": package.name, "versionInfo": package.version,
                         "sourceInfo": f"{package.source} (= {package.source_version})",
                         "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": package.licence,
                         "licenseDeclared": package.licence, "copyrightText": "NOASSERTION",
                         "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                                           "referenceLocator": locator.replace("+", "%2B")}]})
        relationships += [{"spdxElementId": f"SPDXRef-{name}", "relationshipType": relation,
                           "relatedSpdxElement": identifier}
                          for relation, linked_owners in linkage.items() if owner in linked_owners]

    # Equal builds have equal bills, with the same name; any other build has another name.
    content = json.dumps([packages, relationships])
    epoch = os.environ.get("SOURCE_DATE_EPOCH")
    created = datetime.datetime.fromtimestamp(float(epoch) if epoch else os.stat(arguments.program).st_mtime,
                                              datetime.timezone.utc)
    return {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
            "name": f"{name}-{arguments.version}",
            "documentNamespace": f"urn:uuid:{uuid.uuid5(uuid.NAMESPACE_URL, content)}",
            "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"),
                             "creators": ["Tool: bill_of_materials.py"]},
            "packages": packages, "relationships": relationships}


def built_using(paths):
    """The source packages that are linked in, as the value of Debian's field Static-Built-Using."""
    sources = set()
    for path in paths:
        document = json.loads(Path(path).read_text(encoding="utf-8"))
        linked = {relation["relatedSpdxElement"] for relation in document["relationships"]
                  if relation["relationshipType"] == "STATIC_LINK"}
        sources |= {package["sourceInfo"] for package in document["packages"] if package["SPDXID"] in linked}
    return ", ".join(sorted(sources))


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--built-using", metavar="BILL", nargs="+", help="only print the value of Static-Built-Using")
    parser.add_argument("--program", metavar="FILE")
    parser.add_argument("--version", metavar="VERSION", help="of the program")
    parser.add_argument("--map", metavar="FILE", help="the link map of the program")
    parser.add_argument("--build", metavar="DIR", help="the build directory: files below it belong to the program")
    parser.add_argument("--header", metavar="FILE", action="append", default=[],
                        help="a header of a library that is compiled in without being linked")
    parser.add_argument("--output", metavar="FILE")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    if arguments.built_using:
        print(built_using(arguments.built_using))
        return
    Path(arguments.output).write_text(json.dumps(bill(arguments), indent=2) + "\n", encoding="utf-8")


if __name__ == "__main__":
    try:
        main()
    except BillError as problem:
        sys.exit(f"bill of materials: {problem}")
