'use strict';
'require dnsproxyd.lines as source';
'require dom';
'require poll';
'require ui';
'require view';

const REFRESH_S = 5;
const CHART_POINTS = 60; /* five minutes */
const CHART_WIDTH = 120;
const CHART_HEIGHT = 28;
const HISTOGRAM_STEPS = 15; /* up to 1, 2, 4 ... 8192 ms; the last one has no end */
const SVG = 'http://www.w3.org/2000/svg';

function now() {
	return window.performance.now();
}

function isWritable() {
	return L.hasViewPermission() === true;
}

/* Changes the page only where it differs, so that nothing flickers and a selection stays. */
function setText(node, text) {
	if (node.textContent !== text)
		node.textContent = text;
}

function setAttribute(node, name, value) {
	if (node.getAttribute(name) !== value)
		node.setAttribute(name, value);
}

function setShown(node, isShown) {
	node.classList.toggle('hidden', !isShown);
}

function formatShare(share) {
	return share == null ? '–' : '%d %%'.format(Math.floor(share * 100));
}

function formatTime(us) {
	if (us == null)
		return '–';

	return us < 9950 ? '%.1f ms'.format(us / 1000) : '%d ms'.format(Math.round(us / 1000));
}

function formatRate(rate) {
	return rate == null ? '–' : _('%.1f per second').format(rate);
}

/* A picture with a text for those who do not see it. */
function createPicture(width) {
	const svg = document.createElementNS(SVG, 'svg');
	const base = document.createElementNS(SVG, 'path');
	const shape = document.createElementNS(SVG, 'path');
	const label = document.createElementNS(SVG, 'title');

	svg.setAttribute('viewBox', '0 0 %d %d'.format(width, CHART_HEIGHT));
	svg.setAttribute('width', width);
	svg.setAttribute('height', CHART_HEIGHT);
	svg.setAttribute('role', 'img');
	svg.setAttribute('style', 'display:block;max-width:100%');
	base.setAttribute('d', 'M0 %sH%d'.format(CHART_HEIGHT - 0.5, width));
	base.setAttribute('stroke', 'currentColor');
	base.setAttribute('opacity', '0.35');
	svg.appendChild(label);
	svg.appendChild(base);
	svg.appendChild(shape);

	return { svg: svg, shape: shape, label: label };
}

function createBars() {
	const picture = createPicture(CHART_WIDTH);

	picture.shape.setAttribute('fill', 'currentColor');

	return picture;
}

function createChart() {
	const picture = createPicture(CHART_WIDTH);

	picture.shape.setAttribute('fill', 'none');
	picture.shape.setAttribute('stroke', 'currentColor');
	picture.shape.setAttribute('stroke-width', '1.5');

	return picture;
}

function barsPath(histogram) {
	const most = Math.max.apply(null, histogram);
	const step = CHART_WIDTH / HISTOGRAM_STEPS;

	return histogram.map(function(times, i) {
		/* A single answer among many stays visible. */
		const height = times > 0 ? Math.max(times / most * (CHART_HEIGHT - 2), 1.5) : 0;

		return height > 0 ? 'M%s %sh%sv%sh-%sz'.format((i * step + 1).toFixed(1), CHART_HEIGHT.toFixed(1),
			(step - 2).toFixed(1), (-height).toFixed(1), (step - 2).toFixed(1)) : '';
	}).join('');
}

/* The upper end of the step in which the share of the answers is reached, in ms; Infinity for the last step. */
function quantile(histogram, share) {
	const total = histogram.reduce(function(sum, times) { return sum + times; }, 0);
	let seen = 0;

	for (let i = 0; i < histogram.length; i++) {
		seen += histogram[i];

		if (seen >= total * share)
			return i < HISTOGRAM_STEPS - 1 ? Math.pow(2, i) : Infinity;
	}

	return Infinity;
}

function formatQuantile(histogram) {
	if (histogram == null || !histogram.some(function(times) { return times > 0; }))
		return '–';

	const end = quantile(histogram, 0.95);

	return end == Infinity ? _('5 %% or more take over 8 s').format() : _('95 %% within %d ms').format(end);
}

/* Points without a rate are gaps. The newest is at the right. */
function chartPath(rates) {
	const most = Math.max.apply(null, rates.concat(1));
	const step = CHART_WIDTH / (CHART_POINTS - 1);
	let path = '';
	let isOpen = false;

	rates.forEach(function(rate, i) {
		if (rate == null) {
			isOpen = false;
			return;
		}

		const x = CHART_WIDTH - (rates.length - 1 - i) * step;
		const y = CHART_HEIGHT - 2 - rate / most * (CHART_HEIGHT - 4);

		path += '%s%s %s'.format(isOpen ? 'L' : 'M', x.toFixed(1), y.toFixed(1));
		isOpen = true;
	});

	return path;
}

const REASONS = {
	hand: _('set by hand'),
	mwan3: _('by mwan3'),
	network: _('the network is down'),
	watch: _('found dead by dnsproxyctl watch')
};

return view.extend({
	handleSaveApply: null,
	handleSave: null,
	handleReset: null,

	load: function() {
		return source.collect(now()).catch(function() { return null; });
	},

	render: function(data) {
		this.rows = {};
		this.rates = {};
		this.service = E('div', { 'class': 'alert-message', 'role': 'status' });
		this.lost = E('div', { 'class': 'alert-message warning hidden' },
			[ _('The router does not answer. What is shown is the last that it told.') ]);
		this.notCounted = E('p', { 'class': 'hidden' },
			[ _('This dnsproxyd has no numbers on the bus: rates, shares and times are not known.') ]);
		this.numbers = E('p');
		this.findings = E('div', { 'aria-live': 'polite' });
		this.table = E('table', { 'class': 'table' }, [
			E('tr', { 'class': 'tr table-titles' }, [
				E('th', { 'class': 'th' }, [ _('Line') ]),
				E('th', { 'class': 'th' }, [ _('State') ]),
				E('th', { 'class': 'th' }, [ _('Queries') ]),
				E('th', { 'class': 'th' }, [ _('Time to the answer') ]),
				E('th', { 'class': 'th' }, [ _('Servers: answered, mean time') ]),
				isWritable() ? E('th', { 'class': 'th cbi-section-actions' }) : ''
			])
		]);
		this.noLines = E('p', { 'class': 'hidden' }, [ E('em') ]);

		if (data != null)
			this.update(data);
		else
			setShown(this.lost, true);

		poll.add(L.bind(this.refresh, this), REFRESH_S);

		return E('div', {}, [
			E('h2', {}, [ _('DNS proxy') ]),
			this.lost,
			this.service,
			E('div', { 'class': 'cbi-section' }, [
				E('h3', {}, [ _('Lines') ]),
				this.numbers,
				this.notCounted,
				this.table,
				this.noLines,
				isWritable() ? this.renderAskAll() : '',
				this.findings
			])
		]);
	},

	renderAskAll: function() {
		return E('p', {}, [
			E('button', {
				'class': 'btn cbi-button cbi-button-action',
				'click': ui.createHandlerFn(this, 'handleAskAll')
			}, [ _('Ask all servers now') ]),
			' ',
			_('Sends a query to every server of every line that is on, and looks for what is wrong. Takes some seconds.')
		]);
	},

	refresh: function() {
		return source.collect(now()).then(L.bind(function(data) {
			setShown(this.lost, false);
			this.update(data);
		}, this), L.bind(function() {
			setShown(this.lost, true);
		}, this));
	},

	update: function(data) {
		const devices = {};

		this.data = data;
		this.updateService(data);
		this.awaitReasons(data);
		this.updateNumbers(data);
		setShown(this.notCounted, data.running && !data.hasStatistics);
		setShown(this.noLines, data.lines.length == 0);
		setText(this.noLines.firstChild, data.running ? _('There are no lines.') : _('The lines are not known.'));

		data.lines.forEach(L.bind(function(line) {
			devices[line.device] = true;
			this.updateRow(line, this.updateRates(line));
		}, this));

		Object.keys(this.rows).forEach(L.bind(function(device) {
			if (devices[device])
				return;

			this.table.removeChild(this.rows[device].node);
			delete this.rows[device];
			delete this.rates[device];
		}, this));

		this.orderRows(data.lines);
	},

	/* Moves rows only if a line has come that does not belong to the end. */
	orderRows: function(lines) {
		let previous = this.table.firstChild;

		lines.forEach(L.bind(function(line) {
			const node = this.rows[line.device].node;

			if (previous.nextSibling !== node)
				this.table.insertBefore(node, previous.nextSibling);

			previous = node;
		}, this));
	},

	awaitReasons: function(data) {
		if (data.reasons == null)
			return;

		data.reasons.then(L.bind(function(findings) {
			if (this.data === data)
				this.updateService(Object.assign(data, { findings: findings }));
		}, this));
	},

	updateService: function(data) {
		const isServing = data.serving === true;
		let texts;

		if (isServing)
			texts = [ data.uptime != null ? _('DNS is served. Uptime: %t.').format(data.uptime) : _('DNS is served.') ];
		else if (data.findings.length > 0)
			texts = data.findings.map(function(f) { return '%s. → %s'.format(f.finding, f.remedy); });
		else if (!data.running)
			texts = [ _('dnsproxyd is not running.') ];
		else
			texts = [ _('dnsproxyd is running. It is not known whether it serves.') ];

		if (data.serving === false)
			texts.unshift(_('DNS is not served:'));

		this.service.className = 'alert-message %s'.format(
			isServing ? 'success' : data.serving === false ? 'error' : 'warning');

		/* The uptime is in the text, so a row of text is replaced, never the box. */
		while (this.service.childNodes.length > texts.length)
			this.service.removeChild(this.service.lastChild);

		texts.forEach(L.bind(function(text, i) {
			if (this.service.childNodes.length <= i)
				this.service.appendChild(E('div'));

			setText(this.service.childNodes[i], text);
		}, this));
	},

	updateNumbers: function(data) {
		const families = [ _('IPv4'), _('IPv6') ];
		const texts = (data.queries || []).map(function(queries, i) {
			return _('%s: %d queries taken, %d refused, %d in flight').format(
				families[i], queries.taken, queries.refused, queries.in_flight);
		});

		setText(this.numbers, texts.join(' · '));
		setShown(this.numbers, texts.length > 0);
	},

	/* Queries per second since the last refresh; null for a counter that began anew. */
	updateRates: function(line) {
		const known = this.rates[line.device] || { points: [] };
		const at = now();
		let rate = null;

		/* A mark refreshes the page out of turn; a rate over a moment is chance. */
		if (at - known.at < 1000)
			return known.points;

		if (line.sent != null && known.sent != null && line.sent >= known.sent)
			rate = (line.sent - known.sent) * 1000 / (at - known.at);

		known.sent = line.sent;
		known.at = at;
		known.points = known.points.concat(rate).slice(-CHART_POINTS);
		this.rates[line.device] = known;

		return known.points;
	},

	createRow: function(line) {
		const row = {
			name: E('strong'),
			device: E('span'),
			state: E('span', { 'class': 'label' }),
			by: E('div'),
			rate: E('div'),
			chart: createChart(),
			bars: createBars(),
			times: E('div'),
			servers: E('div'),
			button: null
		};
		const cell = function(title, children) {
			return E('td', { 'class': 'td', 'data-title': title }, children);
		};

		if (isWritable())
			row.button = E('button', {
				'class': 'btn cbi-button',
				'click': L.bind(function() { this.handleMark(row.line); }, this)
			});

		row.node = E('tr', { 'class': 'tr' }, [
			cell(_('Line'), [ row.name, E('br'), row.device ]),
			cell(_('State'), [ row.state, row.by ]),
			cell(_('Queries'), [ row.chart.svg, row.rate ]),
			cell(_('Time to the answer'), [ row.bars.svg, row.times ]),
			cell(_('Servers: answered, mean time'), [ row.servers ]),
			row.button ? E('td', { 'class': 'td cbi-section-actions' }, [ E('div', {}, [ row.button ]) ]) : ''
		]);

		this.rows[line.device] = row;
		this.table.appendChild(row.node);

		return row;
	},

	updateRow: function(line, rates) {
		const row = this.rows[line.device] || this.createRow(line);
		const states = { on: _('on'), off: _('off') };
		const rateText = formatRate(rates[rates.length - 1]);

		row.line = line;
		setText(row.name, line.name);
		setText(row.device, line.device);
		setText(row.state, states[line.state] || _('unknown'));
		setAttribute(row.state, 'class', 'label %s'.format(line.state == 'on' ? 'success' : 'warning'));
		setText(row.by, REASONS[line.by] || '');
		setText(row.rate, rateText);
		setAttribute(row.chart.shape, 'd', chartPath(rates));
		setText(row.chart.label, _('Queries of the last five minutes, at last %s').format(rateText));

		setAttribute(row.bars.shape, 'd', line.histogram ? barsPath(line.histogram) : '');
		setText(row.bars.label, _('Times to the answer, from 1 ms at the left in steps that double'));
		setText(row.times, formatQuantile(line.histogram));

		this.updateServers(row.servers, line.servers);

		if (row.button) {
			const isOn = line.state == 'on';

			setText(row.button, isOn ? _('Mark down') : _('Mark up'));
			setAttribute(row.button, 'class', 'btn cbi-button %s'.format(isOn ? 'cbi-button-negative' : 'cbi-button-positive'));
			setAttribute(row.button, 'aria-label', (isOn ? _('Mark %s down') : _('Mark %s up')).format(line.name));
		}
	},

	updateServers: function(node, servers) {
		const texts = servers == null ? [ '–' ] : servers.length == 0 ? [ _('none') ] : servers.map(function(server) {
			return '%s: %s, %s'.format(server.address, formatShare(server.share), formatTime(server.mean));
		});

		while (node.childNodes.length > texts.length)
			node.removeChild(node.lastChild);

		texts.forEach(function(text, i) {
			if (node.childNodes.length <= i)
				node.appendChild(E('div'));

			setText(node.childNodes[i], text);
		});
	},

	handleMark: function(line) {
		const state = line.state == 'on' ? 'off' : 'on';
		const effect = state == 'off'
			? _('Queries over IPv4 of networks that may take any line pass this line over. Networks that are forced to it still use it. If all lines are down, queries go to all of them.')
			: _('Queries of networks that may take any line use this line again.');
		const confirm = E('button', {
			'class': 'btn cbi-button %s important'.format(state == 'off' ? 'cbi-button-negative' : 'cbi-button-positive'),
			'click': ui.createHandlerFn(this, function() {
				return source.mark(line, state).then(L.bind(this.refresh, this)).catch(function(err) {
					ui.addNotification(null, E('p', {}, [ _('The state was not changed: %s').format(err.message) ]), 'error');
				}).finally(ui.hideModal);
			})
		}, [ state == 'off' ? _('Mark down') : _('Mark up') ]);

		ui.showModal([ (state == 'off' ? _('Mark %s down') : _('Mark %s up')).format(line.name) ], [
			E('p', {}, [ effect ]),
			E('p', {}, [ _('This lasts until the state of a network on this router changes, or until dnsproxyd is started anew.') ]),
			E('div', { 'class': 'right' }, [
				E('button', { 'class': 'btn cbi-button', 'click': ui.hideModal }, [ _('Cancel') ]),
				' ',
				confirm
			])
		]);
		confirm.focus();
	},

	handleAskAll: function() {
		dom.content(this.findings, [ E('em', {}, [ _('Asking'), '…' ]) ]);

		return source.askAll(now()).then(L.bind(function(findings) {
			let children;

			if (findings == null)
				children = [ E('p', {}, [ _('Nothing was asked: this dnsproxyd is asked once a minute at most, or did not answer. Try again in a minute.') ]) ];
			else if (findings.length == 0)
				children = [ E('p', {}, [ _('Nothing is wrong: every server of every line that is on has answered.') ]) ];
			else
				children = [ E('ul', {}, findings.map(function(f) {
					return E('li', {}, [ f.finding, E('br'), '→ ', E('code', { 'style': 'white-space:normal' }, [ f.remedy ]) ]);
				})) ];

			children.unshift(E('strong', {}, [ _('Asked at %s').format(new Date().toLocaleTimeString()) ]));
			dom.content(this.findings, children);
		}, this));
	}
});
