'use strict';
'require dom';
'require form';
'require rpc';
'require uci';
'require view';

const PPPOE_RULE = 'dnsproxy_pppoes'; /* a rule of this name serves no network */

const getInterfaces = rpc.declare({
	object: 'network.interface',
	method: 'dump',
	expect: { 'interface': [] }
});

const getState = rpc.declare({
	object: 'dnsproxy',
	method: 'get_state',
	reject: true
});

/* Names in a configuration can hold anything: a node shows them as text. */
function textNode(text) {
	return E('span', {}, [ text ]);
}

function isWritable() {
	return L.hasViewPermission() === true;
}

function modeOf(section_id) {
	if (uci.get('dns', section_id, 'force_if') == 'on')
		return 'forced';

	return uci.get('dns', section_id, 'out_type') == 'polling' ? 'all' : 'turn';
}

function ruleOf(section_id) {
	return {
		id: section_id,
		name: uci.get('dns', section_id, 'name'),
		network: uci.get('dns', section_id, 'service_if'),
		mode: modeOf(section_id),
		line: uci.get('dns', section_id, 'out_if')
	};
}

/* A list or a text, of words. */
function wordsOf(value) {
	return Array.isArray(value) ? value : String(value || '').split(/\s+/).filter(function(word) { return word != ''; });
}

function includesPort(ports, port) {
	return wordsOf(ports).some(function(range) {
		const ends = range.split(/[-:]/).map(Number);

		return ends[0] <= port && port <= ends[ends.length - 1];
	});
}

/* Whether hosts of a network reach UDP port 53 of this router; null where the sections do not tell. */
function isPort53Open(network) {
	const zone = uci.sections('firewall', 'zone').filter(function(z) {
		return wordsOf(z.network).indexOf(network) >= 0;
	})[0];
	const defaults = uci.sections('firewall', 'defaults')[0];
	const input = (zone && zone.input) || (defaults && defaults.input);

	if (input == null)
		return null;

	if (input.toUpperCase() == 'ACCEPT')
		return true;

	return zone != null && uci.sections('firewall', 'rule').some(function(rule) {
		const protocols = wordsOf(rule.proto || 'tcpudp');

		return rule.enabled != '0' && rule.dest == null && (rule.src == zone.name || rule.src == '*') &&
			String(rule.target).toUpperCase() == 'ACCEPT' &&
			[ 'udp', 'tcpudp', 'all', 'any', '*' ].some(function(p) { return protocols.indexOf(p) >= 0; }) &&
			(rule.dest_port == null || includesPort(rule.dest_port, 53));
	});
}

return view.extend({
	addFooter: function() {
		return isWritable() ? this.super('addFooter', []) : E([]);
	},

	load: function() {
		return Promise.all([
			getInterfaces(),
			getState().catch(function() { return null; }),
			uci.load('dns'),
			uci.load('firewall').catch(function() {})
		]);
	},

	/* A network's device; a name that is no network's stands for itself. */
	deviceOf: function(name) {
		const network = this.networks[name];

		return network ? (network.l3_device || network.device || name) : name;
	},

	warningsOf: function(rule) {
		const warnings = [];
		const isServing = rule.name != PPPOE_RULE;

		if (!rule.network)
			return [ _('The rule serves no network.') ];

		if (!this.networks[rule.network])
			warnings.push(_('This router has no network "%s".').format(rule.network));

		if (!isServing)
			return warnings;

		const twin = uci.sections('dns', 'rule').map(function(s) { return ruleOf(s['.name']); }).filter(L.bind(function(other) {
			return other.id != rule.id && other.network && other.name != PPPOE_RULE &&
				this.deviceOf(other.network) == this.deviceOf(rule.network);
		}, this))[0];

		if (twin)
			warnings.push(_('The rule "%s" serves the same device. Of the two the first counts.').format(twin.name || twin.id));

		if (rule.mode == 'forced' && !rule.line)
			warnings.push(_('A line is missing: hosts get no answer.'));
		else if (rule.mode == 'forced' && !this.networks[rule.line])
			warnings.push(_('This router has no line "%s": hosts get no answer.').format(rule.line));
		else if (rule.mode == 'forced' && this.lines && !this.lines[this.deviceOf(rule.line)])
			warnings.push(_('dnsproxyd has no line on "%s" at present: hosts get no answer.').format(rule.line));

		if (rule.network != 'loopback' && isPort53Open(rule.network) === false)
			warnings.push(_('The firewall refuses what hosts of "%s" send to port 53 of this router.').format(rule.network));

		return warnings;
	},

	describeMode: function(rule) {
		if (rule.name == PPPOE_RULE)
			return _('Links of PPPoE clients count as this network');

		if (rule.mode == 'forced')
			return _('Only %s').format(rule.line || '–');

		return rule.mode == 'all' ? _('All lines at once') : _('Lines in turn');
	},

	addNetworks: function(option) {
		Object.keys(this.networks).sort(L.naturalCompare).forEach(L.bind(function(name) {
			const device = this.deviceOf(name);

			option.value(name, textNode(device == name ? name : '%s (%s)'.format(name, device)));
		}, this));
	},

	addRules: function(map) {
		const page = this;
		const section = map.section(form.GridSection, 'rule', _('Rules'),
			_('A network without a rule gets no answer. The order counts where two rules are for one device.'));

		section.addremove = isWritable();
		section.anonymous = true;
		section.sortable = isWritable();
		section.nodescriptions = true;
		if (!isWritable())
			section.renderRowActions = function() { return E([]); };

		section.addbtntitle = _('Add a rule');
		section.modaltitle = function() { return [ _('Rule') ]; };

		const name = section.option(form.Value, 'name', _('Name'));
		name.placeholder = _('guest');
		name.textvalue = function(section_id) { return textNode(ruleOf(section_id).name || '–'); };

		const network = section.option(form.Value, 'service_if', _('Network'),
			_('The local network that is served; "loopback" is the router itself.'));
		this.addNetworks(network);
		network.rmempty = false;
		network.validate = function(section_id, value) {
			return (/^[A-Za-z0-9._@:-]{1,34}$/).test(value) || _('The name of a network');
		};
		network.textvalue = function(section_id) { return textNode(ruleOf(section_id).network || '–'); };

		const mode = section.option(form.ListValue, '_mode', _('Lines'));
		mode.value('turn', _('Lines in turn'));
		mode.value('all', _('All lines at once, the first reply counts'));
		mode.value('forced', _('One line and nothing else'));
		mode.default = 'turn';
		mode.depends({ 'name': PPPOE_RULE, '!reverse': true });
		mode.retain = true;
		mode.cfgvalue = modeOf;
		mode.textvalue = function(section_id) { return textNode(page.describeMode(ruleOf(section_id))); };
		mode.write = function(section_id, value) {
			if (value == 'forced')
				uci.set('dns', section_id, 'force_if', 'on');
			else
				uci.unset('dns', section_id, 'force_if');

			if (value == 'all')
				uci.set('dns', section_id, 'out_type', 'polling');
			else
				uci.unset('dns', section_id, 'out_type');
		};

		const line = section.option(form.Value, 'out_if', _('Line'),
			_('Queries leave by this line, also while it is down.'));
		this.addNetworks(line);
		line.modalonly = true;
		line.rmempty = false;
		line.depends('_mode', 'forced');
		line.validate = network.validate;

		const warnings = section.option(form.DummyValue, '_warnings', _('Warnings'));
		const renderWarnings = function(rule) {
			return page.warningsOf(rule).map(function(warning) { return E('div', {}, [ '⚠ ', warning ]); });
		};
		warnings.textvalue = function(section_id) {
			const nodes = renderWarnings(ruleOf(section_id));

			return E('div', {}, nodes.length > 0 ? nodes : [ '–' ]);
		};
		warnings.renderWidget = function(section_id) {
			return E('div', { 'aria-live': 'polite' }, renderWarnings(ruleOf(section_id)));
		};
		warnings.write = function() {};
		warnings.remove = function() {};

		[ network, mode, line ].forEach(function(changed) {
			changed.onchange = function(ev, section_id) {
				const edited = this.section.children.filter(function(o) { return o.option == '_warnings'; })[0];
				const frame = edited.map.findElement('data-field', edited.cbid(section_id));
				const valueOf = L.bind(function(wanted) {
					const found = this.section.children.filter(function(o) { return o.option == wanted; })[0];

					return found.formvalue(section_id);
				}, this);

				dom.content(frame.querySelector('[aria-live]'), renderWarnings({
					id: section_id,
					name: valueOf('name'),
					network: valueOf('service_if'),
					mode: valueOf('_mode'),
					line: valueOf('out_if')
				}));
			};
		});
	},

	addSwitches: function(map) {
		const section = map.section(form.NamedSection, 'main', 'dnsproxyd', _('Service'));
		let option;

		section.anonymous = true;

		option = section.option(form.Flag, 'enabled', _('Enabled'), _('Serve DNS.'));
		option.default = option.enabled;
		option.rmempty = false;

		option = section.option(form.Flag, 'bridge', _('Follow the lines'),
			_('Servers and states of the lines are those of netifd and mwan3. Otherwise something else writes the files of the lines.'));
		option.default = option.enabled;
		option.rmempty = false;

		option = section.option(form.Flag, 'confined', _('Confined'),
			_('Take the rights away that the daemon does not need. Needs the package procd-ujail.'));

		option = section.option(form.DynamicList, 'line', _('Lines'),
			_('The networks that are lines. Without any: all with DNS servers and a default route.'));
		this.addNetworks(option);
		option.depends('bridge', '1');
		option.retain = true;
	},

	render: function(data) {
		this.networks = {};
		data[0].forEach(L.bind(function(network) {
			this.networks[network.interface] = network;
		}, this));
		this.lines = data[1];

		if (uci.get('dns', 'main') == null)
			uci.add('dns', 'dnsproxyd', 'main');

		const map = new form.Map('dns', _('DNS proxy'),
			_('Which networks are served, and which lines their queries take. A change restarts the service, which takes some milliseconds.'));

		this.addRules(map);
		this.addSwitches(map);

		return map.render();
	}
});
