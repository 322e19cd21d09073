"""What `cmake --install` puts where: one component for who administers the panel, one for other programs."""

import re
import subprocess

from harness.private_root import REPOSITORY


def test_runtime_is_both_programs_their_pages_completions_and_documents(install):
    assert install("runtime") == [
        "sbin/arspctl",
        "sbin/arspinfo",
        "share/bash-completion/completions/arspctl",
        "share/bash-completion/completions/arspinfo",
        "share/doc/arspctl/CHANGELOG.md",
        "share/doc/arspctl/LICENSE",
        "share/doc/arspctl/README.md",
        "share/doc/arspctl/SECURITY.md",
        "share/doc/arspctl/arspctl.spdx.json",
        "share/doc/arspctl/arspinfo.spdx.json",
        "share/doc/arspctl/database.md",
        "share/doc/arspctl/examples/responder.py",
        "share/doc/arspctl/failures.md",
        "share/man/man5/kel.conf.5",
        "share/man/man8/arspctl.8",
        "share/man/man8/arspinfo.8",
        "share/zsh/vendor-completions/_arspctl",
        "share/zsh/vendor-completions/_arspinfo",
    ]


def test_the_development_files_are_libraries_headers_and_what_finds_them(install):
    files = [re.sub(r"^lib/([^/]+-linux-gnu/)?", "lib/", name) for name in install("development")]
    files = [re.sub(r"arsp-targets-(release|none|debug)", "arsp-targets-TYPE", name) for name in files]

    assert files == [
        "include/arsp/store/attachments.h",
        "include/arsp/store/extra_headers.h",
        "include/arsp/store/init_db.h",
        "include/arsp/store/records.h",
        "include/arsp/store/responder_db.h",
        "include/arsp/store/schema.h",
        "include/arsp/support/conf.h",
        "include/arsp/support/conf_vars.h",
        "include/arsp/support/dirs.h",
        "include/arsp/support/fatal.h",
        "include/arsp/support/files.h",
        "include/arsp/support/log.h",
        "include/arsp/support/mail_syntax.h",
        "include/arsp/support/text.h",
        "lib/cmake/arsp/arsp-config-version.cmake",
        "lib/cmake/arsp/arsp-config.cmake",
        "lib/cmake/arsp/arsp-targets-TYPE.cmake",
        "lib/cmake/arsp/arsp-targets.cmake",
        "lib/libarsp_store.a",
        "lib/libarsp_support.a",
        "lib/pkgconfig/arsp.pc",
    ]


def test_installed_headers_include_only_installed_headers(install, tmp_path):
    headers = re.findall("include/arsp/(.*)", "\n".join(install("development")))
    source = "".join(f'#include "{header}"\n' for header in headers)

    subprocess.run(["g++", "-std=c++20", "-fsyntax-only", "-I", tmp_path / "development/include/arsp", "-xc++", "-"],
                   input=source, text=True, check=True)


def test_the_debian_packages_have_no_maintainer_scripts():
    """scripts/package examines the built packages."""
    scripts = r"(.*\.)?(preinst|postinst|prerm|postrm|config|triggers|tmpfiles|service|cron\.\w+)"

    assert [path.name for path in (REPOSITORY / "debian").iterdir() if re.fullmatch(scripts, path.name)] == []


def test_the_debian_packages_have_the_version_of_the_project():
    version = re.search(r"project\(arsp VERSION ([\d.]+)", (REPOSITORY / "CMakeLists.txt").read_text())[1]

    assert (REPOSITORY / "debian" / "changelog").read_text().startswith(f"arspctl ({version}-")
