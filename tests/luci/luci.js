// A small LuCI: loads a view as LuCI's loader does, in a page of jsdom, and answers its calls from records of the real
// router. Forms are not drawn; a test saves values and sees what the options write.
const [fs, path] = [require('fs'), require('path')];
const { JSDOM } = require('jsdom');
const RESOURCES = path.join(__dirname, '../../packaging/openwrt/luci-app-dnsproxyd/htdocs/luci-static/resources');
exports.record = (name) => JSON.parse(fs.readFileSync(path.join(__dirname, '../data/luci', name + '.json')));
const nameOf = (call) => call.method == 'exec' ? call.params.params[0] : (call.params.config || call.object) + '.' + call.method;

// As much of LuCI's as the views use: %s, %d, %t, %%, %.Nf.
String.prototype.format = function(...values) {
	return this.replace(/%(%|s|d|t|\.(\d)f)/g, (_, kind, digits) =>
		kind == '%' ? '%' : digits ? Number(values.shift()).toFixed(digits) : String(values.shift()));
};

class Option {
	constructor(uci, name) { Object.assign(this, { uci, option: name, dependencies: [] }); }
	value() {}
	depends(name, value) { this.dependencies.push(typeof name == 'string' ? { [name]: value } : name); }
	isActive(values) {
		return this.dependencies.length == 0 || this.dependencies.some((d) =>
			Object.keys(d).every((key) => key[0] == '!' || values[key] === d[key]) != Boolean(d['!reverse']));
	}
	cfgvalue(id) { return this.uci.get('dns', id, this.option); }
	write(id, value) { value ? this.uci.set('dns', id, this.option, value) : this.uci.unset('dns', id, this.option); }
}

// Answers: {result: [code, reply]} or {error} by call ("dnsproxy.get_state"; "status" and "check" for dnsproxyctl); a
// missing one is an object that the bus does not have, null a router that is silent. The clock is the test's.
exports.Luci = class {
	constructor(records, isWritable = true) {
		Object.assign(this, { isWritable, clock: 0, answers: {}, config: {}, options: {}, calls: [], changes: [] });
		this.polls = [];
		this.add(records);
		this.window = new JSDOM('<body></body>').window;
		this.window.performance.now = () => this.clock;
		this.modules = this.builtin();
	}
	add(records) { records.forEach((call) => { this.answers[nameOf(call)] = call; }); }
	async call(object, method, params, rejects = true) {
		const name = nameOf({ object, method, params });
		const answer = this.answers[name];
		this.calls.push({ name, params });
		if (!answer || answer.error || (rejects && answer.result[0] != 0))
			throw Object.assign(new Error('failed'), { name: answer === null ? 'Error' : 'RPCError' });
		return answer.result.length > 1 ? answer.result[1] : answer.result[0];
	}
	E(tag, attributes, children) {
		const node = this.window.document.createElement(tag);
		Object.entries(attributes || {}).forEach(([key, value]) =>
			typeof value == 'function' ? node.addEventListener(key, value) : node.setAttribute(key, value));
		// As LuCI does: a text that is not in a list is taken for HTML.
		typeof children == 'string' ? node.innerHTML = children : node.append(...[].concat(children || []));
		return node;
	}
	builtin() {
		const extend = (members) => {
			const made = Object.create({ __init__() {}, ...members });
			made.__init__();
			return made;
		};
		const section = (id) => this.config.dns[id];
		const uci = {
			load: (config) => this.call('uci', 'get', { config }).then((reply) => this.config[config] = reply.values),
			get: (config, id, option) => option ? (section(id) || {})[option] : section(id),
			sections: (config, type) => Object.values(this.config[config] || {}).filter((s) => s['.type'] == type),
			set: (config, id, option, value) => this.changes.push([id, option, section(id)[option] = value]),
			unset: (config, id, option) => section(id)[option] && this.changes.push([id, option, null])
		};
		const sections = { option: (kind, name) => this.options[name] = new Option(uci, name) };
		const form = { Map: function() { return { section: () => sections, render() {} }; } };
		const declare = (spec) => (...values) => this.call(spec.object, spec.method,
			Object.fromEntries((spec.params || []).map((name, i) => [name, values[i]])), spec.reject).then((reply) =>
			spec.expect ? reply[Object.keys(spec.expect)[0]] : reply);
		return {
			baseclass: { extend }, view: { extend }, uci, form, rpc: { declare },
			dom: { content: (node, children) => node.replaceChildren(...children) },
			fs: {
				read: () => this.call('file', 'read', {}).then((reply) => reply.data),
				list: () => this.call('file', 'list', {}).then((reply) => reply.entries),
				exec: (command, params) => this.call('file', 'exec', { command, params })
			},
			poll: { add: (refresh) => this.polls.push(refresh) },
			ui: {
				createHandlerFn: (self, handler) => () => (self[handler] || handler).call(self),
				showModal: (title, children) => this.window.document.body.append(...children)
			}
		};
	}
	require(name) {
		const source = fs.readFileSync(path.join(RESOURCES, name.replace(/\./g, '/') + '.js'), 'utf8');
		const L = { bind: (f, self) => f.bind(self), hasViewPermission: () => this.isWritable };
		L.naturalCompare = new Intl.Collator(undefined, { numeric: true }).compare;
		const names = { L, _: String, E: this.E.bind(this), window: this.window, document: this.window.document };
		for (const [, wanted, alias] of source.matchAll(/^'require (\S+?)(?: as (\S+))?';/gm))
			names[alias || wanted] = this.modules[wanted] = this.modules[wanted] || this.require(wanted);
		return new Function(...Object.keys(names), source)(...Object.values(names));
	}
	async open(name) {
		this.page = this.require('view.dnsproxyd.' + name);
		this.node = this.page.render(await this.page.load());
	}
	refresh() {
		this.clock += 5000;
		return Promise.all(this.polls.map((poll) => poll())).then(() => new Promise(setImmediate));
	}
	// What LuCI does with the values of a form.
	save(id, values) {
		for (const option of Object.values(this.options).filter((o) => o.option in values)) {
			const value = option.isActive(values) ? values[option.option] : null;
			value != option.cfgvalue(id) && option.write(id, value);
		}
	}
};
