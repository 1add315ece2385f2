# The usual names of the scripts.
.PHONY: demo check deb html bench
demo:
	scripts/demo
check:
	scripts/check
deb:
	scripts/package
html:
	scripts/manual html
bench:
	scripts/bench
