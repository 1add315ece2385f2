# The usual names of the scripts.
.PHONY: demo check deb html
demo:
	scripts/demo
check:
	scripts/check
deb:
	scripts/package
html:
	scripts/manual html
