"""The site, by Sphinx: the documents as they stand in the project, and the reference from Doxygen's XML.

The first page is README. What stands in `code` in a document and names an operation leads to its reference,
and there each operation leads to the sections that tell of it.
"""

import os
import re
from pathlib import Path
from typing import Any
from xml.etree import ElementTree

from docutils import nodes
from sphinx.addnodes import desc, desc_content, desc_signature, pending_xref
from sphinx.application import Sphinx

HERE = Path(__file__).parent
CLASS_PAGE = "docs/reference/class"
NO_EXPLANATION = {"README", "CHANGELOG", "CONTRIBUTING"}

project = "TAV Bluetooth"
extensions = ["myst_parser", "breathe"]
root_doc = "README"
exclude_patterns = ["html", "examples", "docs/reference/conf.py", "docs/reference/contents.md"]
suppress_warnings = ["misc.highlighting_failure"]  # Pygments does not know all of CMake
myst_heading_anchors = 3
breathe_projects: dict[str, str] = {}  # docs/make says where Doxygen's XML is
breathe_default_project = "tav"
breathe_default_members = ("members", "undoc-members")
html_theme = "furo"
html_show_sphinx = False
html_show_copyright = False
html_copy_source = False
highlight_language = "none"  # where a document does not say
html_title = project
html_js_files = ["site.js", "scripts/gumshoe-patched.js"]  # see docs/make
html_static_path = ["site.css", "site.js"]
html_css_files = ["site.css"]
# The dark colours are Furo's. Debian 12's has them for who chooses dark, and not for whose browser does.
html_theme_options = {
    "footer_icons": [],
    "dark_css_variables": {
        "color-problematic": "#ee5151",
        "color-foreground-primary": "#ffffffcc",
        "color-foreground-secondary": "#9ca0a5",
        "color-foreground-muted": "#81868d",
        "color-foreground-border": "#666666",
        "color-background-primary": "#131416",
        "color-background-secondary": "#1a1c1e",
        "color-background-hover": "#1e2124ff",
        "color-background-hover--transparent": "#1e212400",
        "color-background-border": "#303335",
        "color-background-item": "#444",
        "color-announcement-background": "#000000dd",
        "color-announcement-text": "#eeebee",
        "color-brand-primary": "#2b8cee",
        "color-brand-content": "#368ce2",
        "color-highlighted-background": "#083563",
        "color-guilabel-background": "#08356380",
        "color-guilabel-border": "#13395f80",
        "color-api-keyword": "var(--color-foreground-secondary)",
        "color-highlight-on-target": "#333300",
        "color-admonition-background": "#18181a",
        "color-card-border": "var(--color-background-secondary)",
        "color-card-background": "#18181a",
        "color-card-marginals-background": "var(--color-background-hover)",
    },
}


def join_lines(app: Sphinx) -> None:
    """Breathe takes a line of text in Doxygen's XML for a paragraph."""
    for file in Path(app.config.breathe_projects["tav"]).glob("*.xml"):
        file.write_text(re.sub(r"\n(?=[^<\s])|(?<=[^>\s])\n(?=<)", " ", file.read_text()))


def names_of_the_class(app: Sphinx) -> set[str]:
    (file,) = Path(app.config.breathe_projects["tav"]).glob("class*.xml")
    return {name.text or "" for name in ElementTree.parse(file).iterfind(".//memberdef/name")}


def add_contents(app: Sphinx, docname: str, source: list[str]) -> None:
    """README stays as it is; the site's order of pages comes from a file of its own."""
    if docname == root_doc:
        source[0] += "\n" + (HERE / "contents.md").read_text()


def sections_of_groups(doctree: nodes.document) -> None:
    """Makes sections of the groups that operations of a class are in: they then are in the page's contents."""
    (page,) = doctree.children
    groups = [group for group in doctree.findall(nodes.container) if "breathe-sectiondef" in group["classes"]]
    first = [group for group in groups if group.next_node(desc_signature)["ids"][0].endswith("m_ScanDevicesE")]
    for group in [group for group in groups if group not in first] + first:
        group.parent.remove(group)
        rubric = group.next_node(nodes.rubric)
        rubric.parent.remove(rubric)
        title = rubric.astext()
        section = nodes.section("", nodes.title("", title), *group.children, ids=[nodes.make_id(title)])
        section["names"] = [nodes.fully_normalize_name(title)]
        page += section


def languages_as_tabs(doctree: nodes.document) -> None:
    """Makes tabs of programs that follow each other, each below a paragraph "In LANGUAGE, `FILE`:"."""
    programs: list[nodes.paragraph] = []
    for paragraph in list(doctree.findall(nodes.paragraph)):
        if not re.match(r"In \S+, \S+:$", paragraph.astext()):
            continue
        code = paragraph.next_node(siblings=True, descend=False)
        tabs = paragraph.parent[paragraph.parent.index(paragraph) - 1]
        if "tabs" not in tabs.get("classes", []):
            tabs = nodes.container(classes=["tabs"], ids=[f"tabs-{len(programs)}"])
            paragraph.parent.insert(paragraph.parent.index(paragraph), tabs)
        language, file = paragraph.astext()[3:-1].split(", ")
        label = f"{tabs['ids'][0]}-{len(tabs) // 2}"
        programs.append(paragraph)
        checked = "" if len(tabs) else "checked"
        html = f'<input type="radio" name="{tabs["ids"][0]}" id="{label}" value="{language}" {checked}>'
        html += f'<label for="{label}">{language}: <code>{file}</code></label>'
        paragraph.parent.remove(paragraph)
        code.parent.remove(code)
        tabs += [nodes.raw("", html, format="html"), code]


def link_operations(app: Sphinx, doctree: nodes.document) -> None:
    """Leads what stands in `code` to the reference, and remembers where that was."""
    docname = app.env.docname
    if docname == CLASS_PAGE:
        sections_of_groups(doctree)
        return
    languages_as_tabs(doctree)
    names = names_of_the_class(app)
    for literal in list(doctree.findall(nodes.literal)):
        name = literal.astext().partition("(")[0].rpartition("::")[2]
        if name not in names or isinstance(literal.parent, (nodes.title, nodes.reference)):
            continue
        target = f"tav_c_api_impl::C_TAV_Bluetooth::{name}"
        link = pending_xref("", refdomain="cpp", reftype="any", reftarget=target, refexplicit=True, refdoc=docname)
        literal.replace_self(link)
        link += literal
        section = link.parent
        while not isinstance(section, nodes.section):
            section = section.parent
        if docname not in NO_EXPLANATION and name != "C_TAV_Bluetooth":
            told: dict[str, dict[tuple[str, str], str]] = app.env.__dict__.setdefault("told", {})
            place = (docname, section["ids"][0] if section.parent.parent else "")
            told.setdefault(name, {})[place] = section.next_node(nodes.title).astext()


def name_documents(app: Sphinx, doctree: nodes.document, docname: str) -> None:
    """Links that show a file's name, as in an editor, show the document's title."""
    titles = {(Path(app.srcdir) / name).with_suffix(".md"): title for name, title in app.env.titles.items()}
    for link in doctree.findall(nodes.reference):
        if link.get("internal") and re.fullmatch(r"[\w./]+\.md", link.astext()):
            page = Path(app.srcdir, docname).parent / link["refuri"].partition("#")[0]
            title = titles.get(Path(os.path.normpath(page)).with_suffix(".md"))
            if title:
                link.children = [nodes.Text(title.astext())]


def lead_to_explanations(app: Sphinx, doctree: nodes.document, docname: str) -> None:
    """Below each operation, the sections that tell of it."""
    if docname != CLASS_PAGE:
        return
    told: dict[str, dict[tuple[str, str], str]] = app.env.__dict__.get("told", {})
    for operation in doctree.findall(desc):
        ids = operation.next_node(desc_signature)["ids"]
        name = next((name for name in told if f"15C_TAV_Bluetooth{len(name)}{name}E" in " ".join(ids)), None)
        if not name:
            continue
        links: list[nodes.Node] = [nodes.Text("Told of in ")]
        for (document, anchor), title in told[name].items():
            uri = app.builder.get_relative_uri(docname, document) + (f"#{anchor}" if anchor else "")
            whole = app.env.titles[document].astext()
            links += [nodes.reference("", title, refuri=uri, reftitle=whole, internal=True), nodes.Text(", ")]
        operation.next_node(desc_content).append(nodes.paragraph("", "", *links[:-1], classes=["told"]))


def setup(app: Sphinx) -> dict[str, Any]:
    app.connect("builder-inited", join_lines)
    app.connect("source-read", add_contents)
    app.connect("doctree-read", link_operations, priority=400)  # before Sphinx collects the contents
    app.connect("doctree-resolved", name_documents)
    app.connect("doctree-resolved", lead_to_explanations)
    return {"parallel_read_safe": False}
